#pragma once

#include <QColor>
#include <QElapsedTimer>
#include <QWidget>

class QTimer;

// A small round light. As an activity light it stays lit at least
// kMinimumLitMs so that a single byte is still visible.
class LedIndicator : public QWidget
{
    Q_OBJECT

public:
    static constexpr int kMinimumLitMs = 800;
    static constexpr int kIdleOffMs = 120;

    explicit LedIndicator(const QColor &onColor, QWidget *parent = nullptr);

    bool isLit() const { return m_lit; }
    void setLit(bool lit);

    // Data passed: light up, and go dark once data stops (no earlier than
    // the minimum time after lighting up).
    void blink();
    // Data stopped for good (port lost or closed): dark after the rest of
    // the minimum time.
    void switchOff();

    QSize sizeHint() const override { return QSize(14, 14); }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    void onOffTimer();

    QColor m_onColor;
    bool m_lit = false;
    QElapsedTimer m_litSince;
    QTimer *m_offTimer;
};
