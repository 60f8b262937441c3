#pragma once

#include "connection/connectionconfig.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>

class PortSession;

// The port sessions of the open panes, for bridges to find theirs by the
// pane's endpoint label: the mode's tag and the port or address, joined by
// "-" ("ser-/dev/ttyUSB0", "tcpc-10.0.0.5:502", "tcps-7000"). The window
// adds each pane's session as it makes it; a session leaves when it is
// destroyed.
class PaneDirectory : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    void add(PortSession *session);
    QList<PortSession *> sessions() const;
    // The first session whose endpoint label is `label`; nullptr when none.
    PortSession *find(const QString &label) const;
    // The labels of every session, in the order they were added.
    QStringList labels() const;

    static QString endpointLabel(const ConnectionConfig &config);

Q_SIGNALS:
    // A session came or went, or one changed its state or connection: a
    // bridge waiting for a pane looks again.
    void changed();

private:
    QList<QPointer<PortSession>> m_sessions;
};
