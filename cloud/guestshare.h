#pragma once

#include <QCoreApplication>
#include <QJsonObject>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QStringList>

#include <optional>

// One guest share as the service describes it: an invite (code, link,
// optional passcode) to one open port of one computer for a limited time,
// in a browser at a permission level and/or as a real serial port through
// Live Relay. Times are milliseconds since 1970. Everything here comes from
// the service's replies and is checked on the way in: an unknown level is
// read as "none", so a garbled reply never grants more than it names.
struct GuestShare
{
    Q_DECLARE_TR_FUNCTIONS(GuestShare)

public:
    // The relay guest now joined.
    struct Guest
    {
        QString name;
        qint64 since = 0;
        QString relayId;  // ends the guest's relay session

        bool operator==(const Guest &) const = default;
    };

    QString shareId;
    QString code;
    QString link;
    QString cid;
    QString sessionId;
    QString deviceName;
    QString portKey;
    QString portName;
    QString label;
    QString web = QStringLiteral("none");
    bool relay = false;
    bool hasPasscode = false;
    qint64 createdAt = 0;
    qint64 expiresAt = 0;
    std::optional<Guest> guest;
    int webGuests = 0;
    bool ended = false;
    QString endReason;  // the service's word once ended

    bool operator==(const GuestShare &) const = default;

    // nullopt when the object names no share.
    static std::optional<GuestShare> fromJson(const QJsonObject &object);
    QJsonObject toJson() const;

    bool hasGuests() const { return guest.has_value() || webGuests > 0; }
    // Shifts every time by `offsetMs` (the service's clock minus ours).
    void shiftTimes(qint64 offsetMs);

    // The browser levels, least first.
    static QStringList levels();
    static bool isLevel(const QString &word);
    static bool allowsSending(const QString &level);
    static bool allowsPortControl(const QString &level);
    // "Not allowed", "View only", "View and send", "View, send and port control".
    static QString levelText(const QString &level);
    // "browser: view only" and so on; empty for "none".
    static QString browserRightText(const QString &level);

    // How long a share may last: the offered choices in seconds.
    static QList<int> validForSeconds();
    // "1 hour", "4 hours", "12 hours", "24 hours".
    static QString validForText(int seconds);

    // The reading of a service's end word inside a sentence
    // ("the computer restarted", "too many wrong passcodes").
    static QString endWordText(const QString &word);
    // Why a share ended, as the owner reads it after "Sharing ended: ".
    static QString endedText(const QString &word);
    // The text for a share reply with "status" false.
    static QString refusalText(const QString &code);

    // Why this computer ended a share.
    static QString expiredText();
    static QString stoppedText();
    static QString portClosedText();
    static QString consoleOffText();
    static QString relayOffText();
};

Q_DECLARE_METATYPE(GuestShare)
