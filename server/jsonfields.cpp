#include "jsonfields.h"

#include <QJsonValue>

#include <cmath>

void JsonFields::fail(const QString &code, const QString &description)
{
    if (!m_failure)
        m_failure = ApiReply::failure(m_type, Http::BadRequest, code, description);
}

std::optional<QJsonValue> JsonFields::member(const char *name, bool required)
{
    const QString key = QString::fromLatin1(name);
    const QJsonValue value = m_object.value(key);
    if (value.isUndefined() || value.isNull()) {
        if (required)
            fail(QStringLiteral("missing_field"), QStringLiteral("The request lacks \"%1\".").arg(key));
        return std::nullopt;
    }
    return value;
}

QString JsonFields::string(const char *name, int maxLength, bool required)
{
    const std::optional<QJsonValue> found = member(name, required);
    if (!found)
        return {};
    const QJsonValue &value = *found;
    const QString key = QString::fromLatin1(name);
    if (!value.isString()) {
        fail(QStringLiteral("invalid_field"), QStringLiteral("\"%1\" must be a string.").arg(key));
        return {};
    }
    const QString text = value.toString();
    if (text.size() > maxLength) {
        fail(QStringLiteral("invalid_field"),
             QStringLiteral("\"%1\" is longer than %2 characters.").arg(key).arg(maxLength));
        return {};
    }
    return text;
}

qint64 JsonFields::integer(const char *name, bool required, qint64 fallback)
{
    const std::optional<QJsonValue> found = member(name, required);
    if (!found)
        return fallback;
    const QJsonValue &value = *found;
    const QString key = QString::fromLatin1(name);
    const double number = value.toDouble(std::nan(""));
    // Whole numbers only, and only those a double holds exactly.
    if (!value.isDouble() || std::trunc(number) != number || std::fabs(number) > 9007199254740991.0) {
        fail(QStringLiteral("invalid_field"), QStringLiteral("\"%1\" must be a whole number.").arg(key));
        return fallback;
    }
    return static_cast<qint64>(number);
}

QJsonObject JsonFields::object(const char *name, bool required)
{
    const std::optional<QJsonValue> found = member(name, required);
    if (!found)
        return {};
    const QJsonValue &value = *found;
    const QString key = QString::fromLatin1(name);
    if (!value.isObject()) {
        fail(QStringLiteral("invalid_field"), QStringLiteral("\"%1\" must be an object.").arg(key));
        return {};
    }
    return value.toObject();
}
