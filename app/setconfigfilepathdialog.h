#pragma once

#include <QDialog>

class QSettings;

namespace Ui {
class SetConfigFilePathDialog;
}

// Asks at first start where the configuration files live. Accepting creates
// the folder and stores it; the caller ends the program on cancel.
class SetConfigFilePathDialog : public QDialog
{
    Q_OBJECT

public:
    explicit SetConfigFilePathDialog(QSettings &settings, QWidget *parent = nullptr);
    ~SetConfigFilePathDialog() override;

    QString path() const;
    void setPath(const QString &path);

public Q_SLOTS:
    void accept() override;

private Q_SLOTS:
    void on_btnBrowse_clicked();

private:
    Ui::SetConfigFilePathDialog *ui;
    QSettings &m_settings;
};
