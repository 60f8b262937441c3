#pragma once

#include <QList>
#include <QWidget>

// Two minutes of a rate, one point per second, drawn as a line scaled to
// its own peak, with the peak written in the corner.
class RateSparkline : public QWidget
{
    Q_OBJECT

public:
    explicit RateSparkline(QWidget *parent = nullptr);

    void setPoints(const QList<qint64> &bytesPerSecond);
    const QList<qint64> &points() const { return m_points; }
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

    // "512 B/s", "12.5 KB/s", "3.1 MB/s".
    static QString rateText(qint64 bytesPerSecond);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QList<qint64> m_points;
};
