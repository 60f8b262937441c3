#include "transfer/xferfilesink.h"

#include "common/logging.h"

#include <QDir>
#include <QFileInfo>
#include <QStorageInfo>

namespace {

constexpr qint64 kEarliestTime = 946684800;    // 1 January 2000
constexpr qint64 kLatestAhead = 315360000;     // ten years
constexpr int kMaxNumberedName = 9999;
constexpr qsizetype kMaxNameBytes = 255;

QString withoutTrailingDots(QString name)
{
    while (name.endsWith(QLatin1Char('.')))
        name.chop(1);
    return name;
}

bool isReservedDeviceName(const QString &name)
{
    const QString stem = name.section(QLatin1Char('.'), 0, 0).toUpper();
    static const QStringList fixed = {QStringLiteral("CON"), QStringLiteral("PRN"), QStringLiteral("AUX"),
                                      QStringLiteral("NUL")};
    if (fixed.contains(stem))
        return true;
    if (stem.size() == 4 && (stem.startsWith(QLatin1String("COM")) || stem.startsWith(QLatin1String("LPT"))))
        return stem.at(3) >= QLatin1Char('1') && stem.at(3) <= QLatin1Char('9');
    return false;
}

// Cuts to at most `bytes` bytes of UTF-8 without splitting a character.
QString limitUtf8(const QString &name, qsizetype bytes)
{
    QByteArray utf8 = name.toUtf8();
    if (utf8.size() <= bytes)
        return name;
    qsizetype cut = bytes;
    while (cut > 0 && (quint8(utf8.at(cut)) & 0xC0) == 0x80)
        --cut;
    utf8.truncate(cut);
    return QString::fromUtf8(utf8);
}

} // namespace

XferFileSink::XferFileSink(const QString &folder)
    : m_folder(folder)
{
}

XferFileSink::~XferFileSink()
{
    // Never leave the hidden file behind; what arrived of an unfinished
    // transfer is kept aside.
    if (!m_finished && !m_tempPath.isEmpty())
        abort(true);
}

QString XferFileSink::sanitisedName(const QString &requested, const QDateTime &now)
{
    QString name = requested;
    const qsizetype slash = qMax(name.lastIndexOf(QLatin1Char('/')), name.lastIndexOf(QLatin1Char('\\')));
    if (slash >= 0)
        name = name.mid(slash + 1);
    const qsizetype colon = name.indexOf(QLatin1Char(':'));
    if (colon >= 0)
        name.truncate(colon);
    // "name . ." becomes "name": white space and dots, until neither is left
    // at the end (some systems drop both silently).
    for (QString before; before != name;) {
        before = name;
        name = withoutTrailingDots(name.trimmed());
    }
    if (isReservedDeviceName(name))
        name.prepend(QLatin1Char('_'));
    name = withoutTrailingDots(limitUtf8(name, kMaxNameBytes));
    // Characters no file system takes in a name.
    name.remove(QChar(0));
    if (name.isEmpty() || name == QLatin1String("..") || name == QLatin1String("."))
        name = QStringLiteral("received_%1.bin").arg(now.toString(QStringLiteral("yyyyMMdd-hhmmss")));
    return name;
}

QString XferFileSink::freeName(const QString &folder, const QString &name)
{
    const QDir dir(folder);
    if (!QFileInfo::exists(dir.filePath(name)))
        return name;
    // The suffix starts at the last dot that is not the first character.
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    const QString base = dot > 0 ? name.left(dot) : name;
    const QString suffix = dot > 0 ? name.mid(dot) : QString();
    for (int n = 1; n <= kMaxNumberedName; ++n) {
        const QString candidate = QStringLiteral("%1 (%2)%3").arg(base).arg(n).arg(suffix);
        if (!QFileInfo::exists(dir.filePath(candidate)))
            return candidate;
    }
    return QStringLiteral("%1 (%2)%3").arg(base).arg(QDateTime::currentMSecsSinceEpoch()).arg(suffix);
}

bool XferFileSink::plausibleModificationTime(qint64 secondsSinceEpoch, const QDateTime &now)
{
    return secondsSinceEpoch >= kEarliestTime && secondsSinceEpoch <= now.toSecsSinceEpoch() + kLatestAhead;
}

void XferFileSink::setModificationTime(qint64 secondsSinceEpoch)
{
    m_mtime = plausibleModificationTime(secondsSinceEpoch) ? secondsSinceEpoch : 0;
}

bool XferFileSink::open(const QString &name, qint64 expectedSize)
{
    m_error.clear();
    if (m_file.isOpen() || m_finished) {
        m_error = tr("Could not create %1: %2").arg(name, tr("a file is already open"));
        return false;
    }
    m_requestedName = name;
    m_sanitisedName = sanitisedName(name);

    QDir dir(m_folder);
    if (!dir.exists() && !QDir().mkpath(m_folder)) {
        m_error = tr("The folder %1 does not exist.").arg(QDir::toNativeSeparators(m_folder));
        return false;
    }
    if (expectedSize > 0) {
        const QStorageInfo volume(m_folder);
        if (volume.isValid() && volume.bytesAvailable() >= 0 && volume.bytesAvailable() < expectedSize) {
            const qint64 mib = 1048576;
            m_error = tr("%1 has %2 MB free but the file needs %3 MB. Choose another location.")
                          .arg(volume.displayName())
                          .arg(volume.bytesAvailable() / mib)
                          .arg(expectedSize / mib);
            return false;
        }
    }
    m_finalName = freeName(m_folder, m_sanitisedName);
    m_finalPath = dir.filePath(m_finalName);
    m_tempPath = dir.filePath(QStringLiteral(".%1.part").arg(m_finalName));
    QFile::remove(m_tempPath);
    m_file.setFileName(m_tempPath);
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        m_error = tr("Could not create %1: %2").arg(m_finalName, m_file.errorString());
        m_tempPath.clear();
        return false;
    }
    m_written = 0;
    return true;
}

bool XferFileSink::write(const QByteArray &bytes)
{
    if (!m_file.isOpen())
        return false;
    if (m_file.write(bytes) != bytes.size()) {
        m_error = m_file.errorString();
        return false;
    }
    m_written += bytes.size();
    return true;
}

bool XferFileSink::finish(qint64 finalSize)
{
    if (!m_file.isOpen() || m_finished)
        return false;
    if (!m_file.flush() || (finalSize >= 0 && !m_file.resize(finalSize))) {
        m_error = m_file.errorString();
        return false;
    }
    m_file.close();
    if (QFileInfo::exists(m_finalPath) || !QFile::rename(m_tempPath, m_finalPath)) {
        m_error = tr("The file was received but could not be renamed to %1.").arg(m_finalName);
        return false;
    }
    m_finished = true;
    if (m_mtime > 0) {
        QFile done(m_finalPath);
        if (!done.open(QIODevice::ReadWrite)
            || !done.setFileTime(QDateTime::fromSecsSinceEpoch(m_mtime), QFileDevice::FileModificationTime))
            qCWarning(lcCore) << "could not set the modification time of" << m_finalPath << done.errorString();
    }
    return true;
}

void XferFileSink::abort(bool keepPartial)
{
    if (m_finished)
        return;
    const bool wasOpen = m_file.isOpen();
    m_file.close();
    if (!wasOpen && m_tempPath.isEmpty())
        return;
    if (!QFileInfo::exists(m_tempPath)) {
        m_tempPath.clear();
        return;
    }
    if (m_written == 0 || !keepPartial) {
        QFile::remove(m_tempPath);
        m_tempPath.clear();
        return;
    }
    const QString kept = freeName(m_folder, m_finalName + QStringLiteral(".partial"));
    const QString keptPath = QDir(m_folder).filePath(kept);
    m_partialPath = QFile::rename(m_tempPath, keptPath) ? keptPath : m_tempPath;
    m_tempPath.clear();
}
