#include "app/setconfigfilepathdialog.h"

#include "app/configfolder.h"
#include "ui_setconfigfilepathdialog.h"

#include <QDir>
#include <QFileDialog>
#include <QPushButton>
#include <QSettings>

SetConfigFilePathDialog::SetConfigFilePathDialog(QSettings &settings, QWidget *parent)
    : QDialog(parent)
    , ui(new Ui::SetConfigFilePathDialog)
    , m_settings(settings)
{
    ui->setupUi(this);
    ui->errorLabel->hide();
    ui->lePath->setText(QDir::toNativeSeparators(ConfigFolder::proposal(settings)));
    connect(ui->buttonBox, &QDialogButtonBox::accepted, this, &SetConfigFilePathDialog::accept);
    connect(ui->buttonBox, &QDialogButtonBox::rejected, this, &SetConfigFilePathDialog::reject);
    connect(ui->lePath, &QLineEdit::textChanged, this, [this](const QString &text) {
        ui->buttonBox->button(QDialogButtonBox::Ok)->setEnabled(!text.trimmed().isEmpty());
        ui->errorLabel->hide();
    });
}

SetConfigFilePathDialog::~SetConfigFilePathDialog()
{
    delete ui;
}

QString SetConfigFilePathDialog::path() const
{
    return QDir::fromNativeSeparators(ui->lePath->text().trimmed());
}

void SetConfigFilePathDialog::setPath(const QString &path)
{
    ui->lePath->setText(QDir::toNativeSeparators(path));
}

void SetConfigFilePathDialog::accept()
{
    const Result stored = ConfigFolder::accept(m_settings, path());
    if (!stored) {
        // Stay open: the user can pick another folder or cancel.
        ui->errorLabel->setText(stored.errorText());
        ui->errorLabel->show();
        return;
    }
    QDialog::accept();
}

void SetConfigFilePathDialog::on_btnBrowse_clicked()
{
    const QString chosen = QFileDialog::getExistingDirectory(this, tr("Configuration Folder"), path());
    if (!chosen.isEmpty())
        setPath(chosen);
}
