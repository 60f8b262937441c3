#pragma once

#include <QHash>
#include <QJsonObject>
#include <QString>

#include <functional>

// How one Live Console command ended: "succeeded" with the command's own
// members, or "failed" with a machine word ("error_code") and a text the
// browser shows ("message"). Both are wire words in English; the page
// translates what it knows.
struct ConsoleOutcome
{
    bool succeeded = true;
    QString errorCode;
    QString message;
    QJsonObject members;

    static ConsoleOutcome success(QJsonObject members = {});
    static ConsoleOutcome failure(QString errorCode, QString message);
    // The result object the service receives: "cid", "status", "error_code"
    // and "message" when not empty, and the members.
    QJsonObject toResult(const QString &cid) const;
};

// What the owner of this computer allows from afar (Cloud menu), read for
// every command so a change takes effect at once.
struct ConsoleConsent
{
    bool remoteSend = false;
    bool portControl = false;
    bool relay = false;

    // `CloudConsoleAllowRemoteSend`, `CloudConsoleAllowPortControl`,
    // `CloudConsoleAllowRelay`, all off unless set.
    static ConsoleConsent fromSettings();
};

// The commands a watcher can send, each with what it requires. The table
// checks the requirement, in one place for every command, before the
// handler runs: the owner's consent, or, for a command that names a
// "share_id", the share's permission level. The port commands, the
// snapshot request and later the relay add themselves with add().
class ConsoleCommandTable
{
public:
    enum class Requirement { Nothing, RemoteSend, PortControl, Relay };

    // What a share grants, as the shares of this computer know it: held
    // false with a failure when the share is unknown or from another run.
    struct ShareAccess
    {
        bool held = false;
        QString errorCode;
        QString message;
        QString level;  // "none", "view", "send" or "control"
        QString portKey;  // the one port the share opens
        bool relay = false;  // whether a guest may join as a real serial port
    };
    using ShareGate = std::function<ShareAccess(const QString &shareId, Requirement requirement)>;
    using Handler = std::function<ConsoleOutcome(const QJsonObject &payload)>;

    ConsoleCommandTable();

    void add(const QString &command, Requirement requirement, Handler handler);
    bool contains(const QString &command) const { return m_commands.contains(command); }
    void setConsentSource(std::function<ConsoleConsent()> source) { m_consent = std::move(source); }
    ConsoleConsent consent() const { return m_consent(); }
    // Without a gate this computer holds no shares.
    void setShareGate(ShareGate gate) { m_shareGate = std::move(gate); }

    ConsoleOutcome run(const QString &command, const QJsonObject &payload) const;

private:
    struct Entry
    {
        Requirement requirement;
        Handler handler;
    };
    ConsoleOutcome check(Requirement requirement, const QJsonObject &payload) const;

    QHash<QString, Entry> m_commands;
    std::function<ConsoleConsent()> m_consent;
    ShareGate m_shareGate;
};

// The wire words of the failures.
namespace ConsoleError {
inline constexpr char kPermissionDenied[] = "permission_denied";
inline constexpr char kShareNotFound[] = "share_not_found";
inline constexpr char kInvalidPayload[] = "invalid_payload";
inline constexpr char kPortNotFound[] = "port_not_found";
inline constexpr char kPortBusy[] = "port_busy";
inline constexpr char kPortClosed[] = "port_closed";
inline constexpr char kNotSerial[] = "not_serial";
inline constexpr char kInternalError[] = "internal_error";
inline constexpr char kUnsupportedCommand[] = "unsupported_command";
inline constexpr char kRelayBusy[] = "relay_busy";
inline constexpr char kSessionMismatch[] = "session_mismatch";
} // namespace ConsoleError
