#include "bridge/bridgemanager.h"

#include "bridge/bridgeengine.h"
#include "bridge/bridgestore.h"
#include "bridge/panedirectory.h"

#include <QSettings>

BridgeManager::BridgeManager(QObject *parent)
    : QObject(parent)
    , m_panes(new PaneDirectory(this))
{
}

BridgeManager::~BridgeManager()
{
    // The engines let go of the panes before the directory goes.
    clear();
}

void BridgeManager::clear()
{
    const QList<BridgeEngine *> engines = std::exchange(m_engines, {});
    qDeleteAll(engines);
}

BridgeEngine *BridgeManager::makeEngine(const BridgeRecord &record)
{
    auto *engine = new BridgeEngine(record, m_panes, this);
    connect(engine, &BridgeEngine::stateChanged, this, [this, engine] {
        const int index = int(m_engines.indexOf(engine));
        if (index >= 0)
            emit bridgeStateChanged(index);
    });
    return engine;
}

QStringList BridgeManager::load(QSettings &settings)
{
    clear();
    const BridgeStore::Loaded loaded = BridgeStore::load(settings);
    for (const BridgeRecord &record : loaded.records)
        m_engines.append(makeEngine(record));
    emit listChanged();
    for (BridgeEngine *engine : std::as_const(m_engines)) {
        if (engine->record().enabled)
            engine->start();
    }
    return loaded.skipped;
}

BridgeEngine *BridgeManager::engine(int index) const
{
    return index >= 0 && index < m_engines.size() ? m_engines.at(index) : nullptr;
}

QList<BridgeRecord> BridgeManager::records() const
{
    QList<BridgeRecord> result;
    for (const BridgeEngine *engine : m_engines)
        result.append(engine->record());
    return result;
}

void BridgeManager::save() const
{
    if (!m_storing)
        return;
    QSettings settings;
    BridgeStore::save(settings, records());
}

Result BridgeManager::add(const BridgeRecord &record)
{
    if (const Result valid = record.validate(); !valid)
        return valid;
    if (m_engines.size() >= BridgeStore::kMaxBridges)
        return Result::failure(tr("There can be at most %1 bridges.").arg(BridgeStore::kMaxBridges));
    BridgeEngine *engine = makeEngine(record);
    m_engines.append(engine);
    save();
    emit listChanged();
    if (record.enabled)
        engine->start();
    return Result::success();
}

Result BridgeManager::replace(int index, const BridgeRecord &record)
{
    BridgeEngine *engine = this->engine(index);
    if (!engine)
        return Result::failure(tr("That bridge no longer exists."));
    if (const Result valid = record.validate(); !valid)
        return valid;
    engine->stop();
    engine->setRecord(record);
    save();
    emit listChanged();
    if (record.enabled)
        engine->start();
    return Result::success();
}

void BridgeManager::remove(int index)
{
    BridgeEngine *engine = this->engine(index);
    if (!engine)
        return;
    m_engines.removeAt(index);
    delete engine;
    save();
    emit listChanged();
}

void BridgeManager::setEnabled(int index, bool enabled)
{
    BridgeEngine *engine = this->engine(index);
    if (!engine)
        return;
    BridgeRecord record = engine->record();
    if (record.enabled != enabled) {
        record.enabled = enabled;
        engine->setRecord(record);
        save();
    }
    if (enabled)
        engine->start();
    else
        engine->stop();
}
