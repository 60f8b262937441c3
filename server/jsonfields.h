#pragma once

#include "apireply.h"

#include <QJsonObject>
#include <QJsonValue>
#include <QString>

#include <optional>

// Reads the members of a request body and, on the first one that is missing
// or of the wrong kind, keeps the envelope that says so. Callers read all
// they need, then check failed() once.
class JsonFields
{
public:
    JsonFields(const QJsonObject &object, QString type) : m_object(object), m_type(std::move(type)) {}

    // A string member; `maxLength` bounds what is stored from peers.
    QString string(const char *name, int maxLength, bool required = true);
    qint64 integer(const char *name, bool required = true, qint64 fallback = 0);
    QJsonObject object(const char *name, bool required = true);

    bool failed() const { return m_failure.has_value(); }
    const ApiReply &failure() const { return *m_failure; }

private:
    void fail(const QString &code, const QString &description);
    // The member `name`, or nothing when it is absent or null (a failure
    // when it is required).
    std::optional<QJsonValue> member(const char *name, bool required);

    QJsonObject m_object;
    QString m_type;
    std::optional<ApiReply> m_failure;
};
