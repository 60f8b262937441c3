#include "bridge/ratesparkline.h"

#include <QLocale>
#include <QPainter>
#include <QPainterPath>

#include <algorithm>

RateSparkline::RateSparkline(QWidget *parent)
    : QWidget(parent)
{
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

QSize RateSparkline::sizeHint() const
{
    return {240, 44};
}

QSize RateSparkline::minimumSizeHint() const
{
    return {120, 44};
}

QString RateSparkline::rateText(qint64 bytesPerSecond)
{
    const QLocale locale;
    if (bytesPerSecond < 1000)
        return tr("%1 B/s").arg(bytesPerSecond);
    if (bytesPerSecond < 1000 * 1000)
        return tr("%1 KB/s").arg(locale.toString(double(bytesPerSecond) / 1000.0, 'f', 1));
    return tr("%1 MB/s").arg(locale.toString(double(bytesPerSecond) / 1e6, 'f', 1));
}

void RateSparkline::setPoints(const QList<qint64> &bytesPerSecond)
{
    if (bytesPerSecond == m_points)
        return;
    m_points = bytesPerSecond;
    update();
}

void RateSparkline::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    const QRectF area = QRectF(rect()).adjusted(1, 1, -1, -1);
    painter.fillRect(rect(), palette().base());
    painter.setPen(palette().mid().color());
    painter.drawRect(area);
    if (m_points.size() < 2)
        return;
    const qint64 highest = *std::max_element(m_points.begin(), m_points.end());
    const qint64 peak = std::max<qint64>(1, highest);
    const double step = area.width() / double(m_points.size() - 1);
    QPainterPath line;
    for (qsizetype i = 0; i < m_points.size(); ++i) {
        const QPointF p(area.left() + step * double(i),
                        area.bottom() - (area.height() - 2) * double(m_points.at(i)) / double(peak));
        if (i == 0)
            line.moveTo(p);
        else
            line.lineTo(p);
    }
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(QColor(0x1f, 0x61, 0x8d), 1.5));
    painter.drawPath(line);
    if (highest == 0)
        return;
    painter.setPen(palette().text().color());
    QFont small = font();
    small.setPointSizeF(small.pointSizeF() * 0.85);
    painter.setFont(small);
    painter.drawText(area.adjusted(4, 2, -4, -2), Qt::AlignTop | Qt::AlignRight, rateText(peak));
}
