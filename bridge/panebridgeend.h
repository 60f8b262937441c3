#pragma once

#include "bridge/bridgeend.h"

#include <QMetaObject>
#include <QPointer>

class PaneDirectory;
class PortSession;

// A pane's port as a bridge end, reached through its port session: what the
// session receives (rxTapped) is the source, the session's send path is the
// outlet (so the pane shows, counts and logs what the bridge sends), and a
// read hold of the session holds the sender back. While attached, the
// session is marked as part of a bridge link. A missing pane is looked for
// again whenever the panes change.
class PaneBridgeEnd : public BridgeEnd
{
    Q_OBJECT

public:
    PaneBridgeEnd(PaneDirectory *directory, const QString &label, const QString &bridgeName, QObject *parent = nullptr);
    ~PaneBridgeEnd() override;

    Result start() override;
    void stop() override;
    bool isReady() const override;
    QString waitingText() const override;
    QString description() const override { return m_label; }
    QStringList outlets() const override;
    bool write(const QString &outlet, const QByteArray &bytes) override;
    qint64 backlog(const QString &outlet) const override;
    void setReadPaused(bool paused) override;
    int lineBaudRate() const override;

    PortSession *session() const;

private:
    void lookUp();
    void attach(PortSession *session);
    void detach();
    void updateReady();

    PaneDirectory *m_directory;
    QString m_label;
    QString m_bridgeName;
    QPointer<PortSession> m_session;
    QList<QMetaObject::Connection> m_connections;
    bool m_started = false;
    bool m_paused = false;
    bool m_ready = false;
};
