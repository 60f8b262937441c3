#include "bridge/rfc2217sharepath.h"

#include "bridge/bridgeend.h"
#include "bridge/bridgerecord.h"
#include "bridge/panebridgeend.h"
#include "connection/connectioncontroller.h"
#include "terminal/portsession.h"

#include <QElapsedTimer>
#include <QTimer>

#include <array>
#include <optional>

struct Rfc2217SharePath::Client
{
    QString label;
    Rfc2217ServerSession session;
    // What the line delivered that this client could not take yet.
    QByteArray pending;
    QTimer *decision = nullptr;
    QElapsedTimer clock;
    bool gone = false;

    ~Client() { delete decision; }
};

// The pane's port as the server sessions act on it.
class Rfc2217SharePath::LinePort : public Rfc2217ServerSession::Port
{
public:
    explicit LinePort(Rfc2217SharePath *path)
        : m_path(path)
    {
    }

    // The client whose bytes are being fed (its purge clears its backlog).
    Client *client = nullptr;

    void write(const QByteArray &data) override
    {
        BridgePathHost *host = m_path->host();
        host->framed(BridgeRecord::kAToB, data);
        BridgeEnd *line = host->end(BridgeRecord::kB);
        if (!line || !line->isReady() || !line->write(QString(), data)) {
            host->dropped(BridgeRecord::kAToB, 1, data.size(), client ? client->label : QString(),
                          Rfc2217SharePath::tr("the shared port did not take it"));
        }
    }

    SerialParameters parameters() const override
    {
        PortSession *session = m_path->paneSession();
        if (!session)
            return {};
        if (isOpenSerial(session))
            return session->controller()->serialDeviceParameters();
        return SerialParameters::from(session->config());
    }

    SerialParameters apply(const SerialParameters &wanted) override
    {
        PortSession *session = m_path->paneSession();
        if (!session || wanted == parameters())
            return parameters();
        ConnectionConfig edited = session->config();
        edited.baudRate = wanted.baudRate;
        edited.dataBits = wanted.dataBits;
        edited.parity = wanted.parity;
        edited.stopBits = wanted.stopBits;
        edited.flowControl = wanted.flowControl;
        // A refusal leaves the port as it was and says why in the pane.
        session->setSerialParameters(edited);
        const SerialParameters inForce = parameters();
        if (!(inForce == SerialParameters::from(session->config()))) {
            // The driver took the setting without a word and kept another:
            // the pane shows what the line really does.
            ConnectionConfig real = session->config();
            real.baudRate = inForce.baudRate;
            real.dataBits = inForce.dataBits;
            real.parity = inForce.parity;
            real.stopBits = inForce.stopBits;
            real.flowControl = inForce.flowControl;
            session->setSerialParameters(real);
        }
        return inForce;
    }

    bool level(Rfc2217ServerSession::Line line) const override
    {
        if (const std::optional<bool> known = m_levels[size_t(line)])
            return *known;
        PortSession *session = m_path->paneSession();
        if (!session)
            return false;
        ConnectionController *controller = session->controller();
        switch (line) {
        case Rfc2217ServerSession::Line::Dtr: return controller->dtrLevel();
        case Rfc2217ServerSession::Line::Rts: return controller->rtsLevel();
        case Rfc2217ServerSession::Line::Break: return controller->breakLevel();
        }
        return false;
    }

    bool setLevel(Rfc2217ServerSession::Line line, bool on) override
    {
        PortSession *session = m_path->paneSession();
        if (!session)
            return level(line);
        const bool before = level(line);
        // The pane's own operations: its check boxes follow and a refusal
        // (a pty has no DTR) is said in the pane.
        const bool taken = line == Rfc2217ServerSession::Line::Break
                               ? session->sendBreak(on)
                               : session->setControlLine(line == Rfc2217ServerSession::Line::Dtr, on);
        m_levels[size_t(line)] = taken ? on : before;
        return *m_levels[size_t(line)];
    }

    void purge(bool received, bool toSend) override
    {
        if (received && client)
            client->pending.clear();
        PortSession *session = m_path->paneSession();
        if (session && isOpenSerial(session))
            session->controller()->purgeSerial(received, toSend);
    }

    quint8 modemLines() const override
    {
        PortSession *session = m_path->paneSession();
        return session && isOpenSerial(session) ? session->controller()->serialModemLines() : 0;
    }

    quint8 lineState() const override
    {
        // Transmit holding and shift registers empty once nothing waits.
        PortSession *session = m_path->paneSession();
        return session && session->controller()->writeBacklog() == 0 ? 0x60 : 0x00;
    }

    void forgetLevels() { m_levels = {}; }

private:
    static bool isOpenSerial(PortSession *session)
    {
        return session->config().mode == ConnectionMode::Serial && session->isConnectionOpen();
    }

    Rfc2217SharePath *m_path;
    std::array<std::optional<bool>, 3> m_levels;
};

Rfc2217SharePath::Rfc2217SharePath(BridgePathHost *host, QObject *parent)
    : BridgePath(host, parent)
    , m_port(std::make_unique<LinePort>(this))
    , m_poll(new QTimer(this))
{
    m_poll->setInterval(kPollIntervalMs);
    connect(m_poll, &QTimer::timeout, this, &Rfc2217SharePath::poll);
    endChanged(BridgeRecord::kA);
}

Rfc2217SharePath::~Rfc2217SharePath() = default;

PortSession *Rfc2217SharePath::paneSession() const
{
    auto *pane = qobject_cast<PaneBridgeEnd *>(host()->end(BridgeRecord::kB));
    return pane ? pane->session() : nullptr;
}

const Rfc2217ServerSession *Rfc2217SharePath::clientSession(const QString &label) const
{
    const auto it = m_clients.find(label);
    return it == m_clients.end() ? nullptr : &it->second->session;
}

void Rfc2217SharePath::addClient(const QString &label)
{
    auto client = std::make_unique<Client>();
    client->label = label;
    client->clock.start();
    client->decision = new QTimer;
    client->decision->setSingleShot(true);
    Client *raw = client.get();
    connect(client->decision, &QTimer::timeout, this, [this, raw] {
        if (!m_stopped)
            take(*raw, raw->session.tick(raw->clock.elapsed()));
    });
    m_clients.emplace(label, std::move(client));
    take(*raw, raw->session.start(raw->clock.elapsed()));
}

void Rfc2217SharePath::armTimer(Client &client, qint64 wakeAtMs)
{
    if (wakeAtMs == Rfc2217ServerSession::Step::kNoWake) {
        client.decision->stop();
        return;
    }
    client.decision->start(int(std::max<qint64>(0, wakeAtMs - client.clock.elapsed())));
}

void Rfc2217SharePath::received(int end, const QByteArray &bytes, const QString &source)
{
    if (m_stopped || host()->isHalting())
        return;
    if (end == BridgeRecord::kB) {
        host()->framed(BridgeRecord::kBToA, bytes);
        if (m_clients.empty()) {
            host()->unrouted(BridgeRecord::kBToA, bytes.size());
            return;
        }
        for (auto &[label, client] : m_clients) {
            if (client->gone)
                continue;
            client->pending += bytes;
            pump(*client);
        }
        updateHolds();
        return;
    }
    if (m_clients.find(source) == m_clients.end())
        addClient(source);
    Client &client = *m_clients.at(source);
    if (client.gone)
        return;
    m_port->client = &client;
    Rfc2217ServerSession::Step step = client.session.feed(bytes, client.clock.elapsed(), *m_port);
    m_port->client = nullptr;
    take(client, std::move(step));
    updateHolds();
}

void Rfc2217SharePath::take(Client &client, Rfc2217ServerSession::Step step)
{
    BridgeEnd *network = host()->end(BridgeRecord::kA);
    if (!step.write.isEmpty() && network)
        network->write(client.label, step.write);
    for (const Rfc2217ServerSession::Event &event : std::as_const(step.events)) {
        switch (event.kind) {
        case Rfc2217ServerSession::Event::Kind::Decided:
            if (event.value == qint64(Rfc2217ServerSession::Mode::Raw))
                emit clientNotice(tr("%1 uses the shared port as a raw TCP stream.").arg(client.label));
            break;
        case Rfc2217ServerSession::Event::Kind::Agreed:
            emit clientNotice(tr("%1 controls the shared port over RFC 2217.").arg(client.label));
            if (!m_poll->isActive())
                m_poll->start();
            break;
        default:
            break;
        }
    }
    armTimer(client, step.wakeAtMs);
    pump(client);
}

void Rfc2217SharePath::pump(Client &client)
{
    if (client.gone || client.pending.isEmpty() || !client.session.canTakeData())
        return;
    BridgeEnd *network = host()->end(BridgeRecord::kA);
    if (!network || network->backlog(client.label) >= kClientWindowBytes)
        return;
    const QByteArray data = std::exchange(client.pending, QByteArray());
    network->write(client.label, client.session.encode(data));
}

void Rfc2217SharePath::updateHolds()
{
    bool holdLine = false;
    for (const auto &[label, client] : m_clients) {
        if (!client->gone && !client->pending.isEmpty()) {
            holdLine = true;
            break;
        }
    }
    if (holdLine != m_holdingLine) {
        m_holdingLine = holdLine;
        if (BridgeEnd *line = host()->end(BridgeRecord::kB))
            line->setReadPaused(holdLine);
    }
    BridgeEnd *line = host()->end(BridgeRecord::kB);
    const bool holdClients = line && line->backlog(QString()) > kLineWindowBytes;
    if (holdClients != m_holdingClients) {
        m_holdingClients = holdClients;
        if (BridgeEnd *network = host()->end(BridgeRecord::kA))
            network->setReadPaused(holdClients);
    }
}

void Rfc2217SharePath::sourceGone(int end, const QString &source)
{
    if (end != BridgeRecord::kA)
        return;
    const auto it = m_clients.find(source);
    if (it != m_clients.end())
        removeLater(*it->second);
}

void Rfc2217SharePath::removeLater(Client &client)
{
    if (client.gone)
        return;
    client.gone = true;
    client.decision->stop();
    if (!client.pending.isEmpty()) {
        host()->dropped(BridgeRecord::kBToA, 1, client.pending.size(), client.label, tr("the client left"));
        client.pending.clear();
    }
    if (!m_sweepPosted) {
        m_sweepPosted = true;
        QMetaObject::invokeMethod(this, &Rfc2217SharePath::sweep, Qt::QueuedConnection);
    }
    updateHolds();
}

void Rfc2217SharePath::sweep()
{
    m_sweepPosted = false;
    for (auto it = m_clients.begin(); it != m_clients.end();) {
        if (it->second->gone)
            it = m_clients.erase(it);
        else
            ++it;
    }
    // A new client under a swept label (the same address and port again).
    endChanged(BridgeRecord::kA);
}

void Rfc2217SharePath::endChanged(int end)
{
    if (m_stopped)
        return;
    if (end == BridgeRecord::kB) {
        // Another pane, or the same one reopened: ask it again.
        m_port->forgetLevels();
        return;
    }
    BridgeEnd *network = host()->end(BridgeRecord::kA);
    if (!network)
        return;
    const QStringList outlets = network->outlets();
    for (const QString &label : outlets) {
        if (m_clients.find(label) == m_clients.end())
            addClient(label);
    }
    for (auto &[label, client] : m_clients) {
        if (!outlets.contains(label))
            removeLater(*client);
    }
    updateHolds();
}

void Rfc2217SharePath::drained(int end)
{
    if (m_stopped)
        return;
    if (end == BridgeRecord::kA) {
        for (auto &[label, client] : m_clients)
            pump(*client);
    }
    updateHolds();
}

void Rfc2217SharePath::poll()
{
    if (m_stopped)
        return;
    bool anyAgreed = false;
    BridgeEnd *network = host()->end(BridgeRecord::kA);
    for (auto &[label, client] : m_clients) {
        if (client->gone || !client->session.isAgreed())
            continue;
        anyAgreed = true;
        const QByteArray notice = client->session.portStateChanged(*m_port);
        if (!notice.isEmpty() && network)
            network->write(label, notice);
    }
    if (!anyAgreed)
        m_poll->stop();
}

qint64 Rfc2217SharePath::queuedBytes(int direction) const
{
    if (direction != BridgeRecord::kBToA)
        return 0;
    qint64 total = 0;
    for (const auto &[label, client] : m_clients)
        total += client->gone ? 0 : client->pending.size();
    return total;
}

void Rfc2217SharePath::stop()
{
    if (m_stopped)
        return;
    m_stopped = true;
    m_poll->stop();
    for (const auto &[label, client] : m_clients) {
        if (!client->pending.isEmpty())
            host()->dropped(BridgeRecord::kBToA, 1, client->pending.size(), label, tr("the bridge stopped"));
    }
    m_clients.clear();
    if (m_holdingLine) {
        if (BridgeEnd *line = host()->end(BridgeRecord::kB))
            line->setReadPaused(false);
        m_holdingLine = false;
    }
    if (m_holdingClients) {
        if (BridgeEnd *network = host()->end(BridgeRecord::kA))
            network->setReadPaused(false);
        m_holdingClients = false;
    }
}
