#pragma once

#include "bridge/bridgeframer.h"
#include "bridge/egressqueue.h"
#include "bridge/floodguard.h"
#include "bridge/modbusarbiter.h"
#include "common/result.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QList>
#include <QString>
#include <QStringList>

#include <array>

// What runs between a bridge's ends. Stored as a word; a kind this version
// does not know is skipped on load with a message.
enum class BridgeKind {
    Forward,        // framed bytes, queued per outlet, fanned out
    ModbusGateway,  // Modbus TCP on a listener to RTU or ASCII on a pane
    Rfc2217Share,   // a pane's port served over RFC 2217 (or raw) on a listener
};

enum class BridgeDirection { AToB, BToA, Both };

// One end of a bridge as the user set it up.
struct BridgeEndSpec
{
    enum class Kind {
        Pane,      // an open pane's port, named by its endpoint label
        Listener,  // a TCP listener the bridge owns
        Udp,       // datagrams to one or more "address:port" targets; never a source
    };

    Kind kind = Kind::Pane;
    QString pane;
    QString listenAddress = QStringLiteral("0.0.0.0");
    int listenPort = 7000;
    QStringList allowlist;
    bool exclusive = false;
    QStringList udpTargets;

    bool operator==(const BridgeEndSpec &other) const = default;
};

struct BridgeCaptureOptions
{
    bool enabled = false;
    QString folder;  // empty: the data logs' folder
    qint64 rotateSizeBytes = 10LL * 1024 * 1024;

    bool operator==(const BridgeCaptureOptions &other) const = default;
};

// Everything one bridge keeps between runs.
struct BridgeRecord
{
    Q_DECLARE_TR_FUNCTIONS(BridgeRecord)

public:
    static constexpr int kA = 0;
    static constexpr int kB = 1;
    static constexpr int kAToB = 0;
    static constexpr int kBToA = 1;

    // Limits the record holds to: bounded memory however it is set.
    static constexpr int kMaxFrameSize = 1024 * 1024;
    static constexpr int kMaxUdpDatagram = 65507;
    static constexpr int kMaxDelimiterBytes = 16;
    static constexpr int kMaxTimeMs = 3600 * 1000;
    static constexpr qint64 kMaxWatermark = 256LL * 1024 * 1024;
    static constexpr int kMaxUdpTargets = 32;
    static constexpr int kMaxNameLength = 64;
    static constexpr int kMaxModbusTimeoutMs = 60000;
    static constexpr int kMaxModbusTurnaroundMs = 10000;
    static constexpr int kMaxModbusClientQueue = 256;
    static constexpr int kMaxModbusTotalQueue = 4096;

    QString name;
    BridgeKind kind = BridgeKind::Forward;
    bool enabled = true;
    std::array<BridgeEndSpec, 2> ends;
    BridgeDirection direction = BridgeDirection::Both;
    // Per direction: [kAToB], [kBToA].
    std::array<BridgeFramer::Options, 2> framing;
    EgressQueue::Options egress;
    FloodGuard::Options flood;
    BridgeCaptureOptions capture;
    // The Modbus gateway kind's own options.
    ModbusArbiter::Options modbus;

    bool operator==(const BridgeRecord &other) const = default;

    // Whether the direction forwards from end `from` (kA or kB).
    bool forwardsFrom(int from) const;
    // Every field alone and how they fit together; the user's text.
    Result validate() const;

    static QString kindWord(BridgeKind kind);
    static bool kindFromWord(const QString &word, BridgeKind *kind);
    static QString directionWord(BridgeDirection direction);
    static bool directionFromWord(const QString &word, BridgeDirection *direction);
    static QString endKindWord(BridgeEndSpec::Kind kind);
    static bool endKindFromWord(const QString &word, BridgeEndSpec::Kind *kind);
    static QString framingWord(BridgeFramer::Mode mode);
    static bool framingFromWord(const QString &word, BridgeFramer::Mode *mode);
    static QString modbusFramingWord(ModbusFraming framing);
    static bool modbusFramingFromWord(const QString &word, ModbusFraming *framing);
    static QString policyWord(EgressQueue::Policy policy);
    static bool policyFromWord(const QString &word, EgressQueue::Policy *policy);

    // "A", "B"; "A → B", "B → A".
    static QString endName(int end);
    static QString directionName(int direction);
    // Texts the user reads for the choices.
    static QString kindText(BridgeKind kind);
    static QString directionText(BridgeDirection direction);
    static QString endKindText(BridgeEndSpec::Kind kind);
    static QString framingText(BridgeFramer::Mode mode);
    static QString policyText(EgressQueue::Policy policy);

    // "address:port" (an IPv6 address in brackets) into its parts.
    static bool parseUdpTarget(const QString &text, QHostAddress *address = nullptr, quint16 *port = nullptr);

private:
    Result validateEnd(int end) const;
    Result validateFraming(int direction) const;
    Result validateModbus() const;
    Result validateShare() const;
};
