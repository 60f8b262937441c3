#include "cloud/consolecommandtable.h"

#include <QSettings>

ConsoleOutcome ConsoleOutcome::success(QJsonObject members)
{
    ConsoleOutcome outcome;
    outcome.members = std::move(members);
    return outcome;
}

ConsoleOutcome ConsoleOutcome::failure(QString errorCode, QString message)
{
    ConsoleOutcome outcome;
    outcome.succeeded = false;
    outcome.errorCode = std::move(errorCode);
    outcome.message = std::move(message);
    return outcome;
}

QJsonObject ConsoleOutcome::toResult(const QString &cid) const
{
    QJsonObject result = members;
    result.insert(QStringLiteral("cid"), cid);
    result.insert(QStringLiteral("status"), succeeded ? QStringLiteral("succeeded") : QStringLiteral("failed"));
    if (!errorCode.isEmpty())
        result.insert(QStringLiteral("error_code"), errorCode);
    if (!message.isEmpty())
        result.insert(QStringLiteral("message"), message);
    return result;
}

ConsoleConsent ConsoleConsent::fromSettings()
{
    const QSettings settings;
    ConsoleConsent consent;
    consent.remoteSend = settings.value(QStringLiteral("CloudConsoleAllowRemoteSend"), false).toBool();
    consent.portControl = settings.value(QStringLiteral("CloudConsoleAllowPortControl"), false).toBool();
    consent.relay = settings.value(QStringLiteral("CloudConsoleAllowRelay"), false).toBool();
    return consent;
}

ConsoleCommandTable::ConsoleCommandTable() : m_consent(&ConsoleConsent::fromSettings) {}

void ConsoleCommandTable::add(const QString &command, Requirement requirement, Handler handler)
{
    m_commands.insert(command, Entry{requirement, std::move(handler)});
}

ConsoleOutcome ConsoleCommandTable::run(const QString &command, const QJsonObject &payload) const
{
    const auto it = m_commands.constFind(command);
    if (it == m_commands.constEnd())
        return ConsoleOutcome::failure(ConsoleError::kUnsupportedCommand,
                                       QStringLiteral("unsupported command: %1").arg(command));
    const ConsoleOutcome allowed = check(it->requirement, payload);
    if (!allowed.succeeded)
        return allowed;
    return it->handler(payload);
}

ConsoleOutcome ConsoleCommandTable::check(Requirement requirement, const QJsonObject &payload) const
{
    if (requirement == Requirement::Nothing)
        return ConsoleOutcome::success();
    const ConsoleConsent consent = m_consent();
    // The owner's switch for relays holds whoever asks.
    if (requirement == Requirement::Relay && !consent.relay)
        return ConsoleOutcome::failure(ConsoleError::kPermissionDenied,
                                       QStringLiteral("cloud relay is disabled on the device"));

    const QString shareId = payload.value(QLatin1String("share_id")).toString();
    if (shareId.isEmpty()) {
        if (requirement == Requirement::RemoteSend && !consent.remoteSend)
            return ConsoleOutcome::failure(ConsoleError::kPermissionDenied,
                                           QStringLiteral("remote send is disabled on the device"));
        if (requirement == Requirement::PortControl && !consent.portControl)
            return ConsoleOutcome::failure(ConsoleError::kPermissionDenied,
                                           QStringLiteral("remote port control is disabled on the device"));
        return ConsoleOutcome::success();
    }

    // A guest's command: the share's level decides, not the owner's switches.
    const ShareAccess access = m_shareGate ? m_shareGate(shareId, requirement) : ShareAccess{};
    if (!access.held)
        return ConsoleOutcome::failure(access.errorCode.isEmpty() ? QString::fromLatin1(ConsoleError::kShareNotFound)
                                                                  : access.errorCode,
                                       access.message.isEmpty() ? QStringLiteral("this computer holds no such share")
                                                                : access.message);
    const bool control = access.level == QLatin1String("control");
    if (requirement == Requirement::RemoteSend && !control && access.level != QLatin1String("send"))
        return ConsoleOutcome::failure(ConsoleError::kPermissionDenied,
                                       QStringLiteral("the share does not allow sending from a browser"));
    if (requirement == Requirement::PortControl && !control)
        return ConsoleOutcome::failure(ConsoleError::kPermissionDenied,
                                       QStringLiteral("the share does not allow port control from a browser"));
    return ConsoleOutcome::success();
}
