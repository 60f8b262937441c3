#include "terminal/ledindicator.h"

#include <QPainter>
#include <QTimer>

LedIndicator::LedIndicator(const QColor &onColor, QWidget *parent)
    : QWidget(parent)
    , m_onColor(onColor)
    , m_offTimer(new QTimer(this))
{
    m_offTimer->setSingleShot(true);
    connect(m_offTimer, &QTimer::timeout, this, &LedIndicator::onOffTimer);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void LedIndicator::setLit(bool lit)
{
    if (lit && !m_lit)
        m_litSince.start();
    if (lit == m_lit)
        return;
    m_lit = lit;
    update();
}

void LedIndicator::blink()
{
    setLit(true);
    m_offTimer->start(kIdleOffMs);
}

void LedIndicator::switchOff()
{
    m_offTimer->stop();
    onOffTimer();
}

void LedIndicator::onOffTimer()
{
    if (!m_lit)
        return;
    const qint64 litFor = m_litSince.isValid() ? m_litSince.elapsed() : kMinimumLitMs;
    if (litFor < kMinimumLitMs) {
        m_offTimer->start(int(kMinimumLitMs - litFor));
        return;
    }
    setLit(false);
}

void LedIndicator::paintEvent(QPaintEvent *)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const int d = qMin(width(), height()) - 2;
    const QRectF r((width() - d) / 2.0, (height() - d) / 2.0, d, d);
    QColor fill = m_lit ? m_onColor : palette().color(QPalette::Mid);
    if (!isEnabled())
        fill = fill.lighter(150);
    p.setPen(QPen(fill.darker(160), 1));
    p.setBrush(fill);
    p.drawEllipse(r);
}
