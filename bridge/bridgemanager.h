#pragma once

#include "bridge/bridgerecord.h"

#include <QList>
#include <QObject>
#include <QStringList>

class BridgeEngine;
class PaneDirectory;
class QSettings;

// Every bridge of the program: their engines, the directory of panes they
// reach, and their place in the settings store. Each change is saved at
// once; enabled bridges are started as they are loaded.
class BridgeManager : public QObject
{
    Q_OBJECT

public:
    explicit BridgeManager(QObject *parent = nullptr);
    ~BridgeManager() override;

    PaneDirectory *panes() const { return m_panes; }
    // Off: changes are not written to the settings store (a picture of the
    // dialog, say). On by default.
    void setStoring(bool on) { m_storing = on; }

    // Replaces every bridge with those stored; returns a message for each
    // stored bridge that was skipped.
    QStringList load(QSettings &settings);

    int count() const { return int(m_engines.size()); }
    BridgeEngine *engine(int index) const;
    QList<BridgeRecord> records() const;

    // Each checks the record first and returns the user's text when it
    // does not hold; nothing changes then.
    Result add(const BridgeRecord &record);
    Result replace(int index, const BridgeRecord &record);
    void remove(int index);
    // Enabling also resumes a bridge the flood guard suspended.
    void setEnabled(int index, bool enabled);

Q_SIGNALS:
    // Bridges were added, removed or changed.
    void listChanged();
    // One bridge's state changed.
    void bridgeStateChanged(int index);

private:
    BridgeEngine *makeEngine(const BridgeRecord &record);
    void save() const;
    void clear();

    PaneDirectory *m_panes;
    QList<BridgeEngine *> m_engines;
    bool m_storing = true;
};
