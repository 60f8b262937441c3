#include "terminal/logwriter.h"

#include "terminal/displayformatter.h"

#include "common/appidentity.h"
#include "common/logging.h"

#include <QDir>
#include <QFileInfo>

namespace {

constexpr char kHeaderTimeFormat[] = "yyyy-MM-dd'T'hh:mm:ss";
constexpr char kArchiveTimeFormat[] = "yyyyMMdd-hhmmss-zzz";

QDateTime systemNow()
{
    return QDateTime::currentDateTime();
}

QString sanitisedPortStamp(const QString &stamp)
{
    QString out = stamp.trimmed();
    for (QChar &c : out) {
        if (c.unicode() < 0x20 || QStringView(u"/\\:*?\"<>|").contains(c))
            c = u'_';
    }
    return out.isEmpty() ? QStringLiteral("port") : out;
}

QString twoDigits(int value)
{
    return QStringLiteral("%1").arg(value, 2, 10, QLatin1Char('0'));
}

// Replaces the %-fields of a pattern; "%%" is a percent sign and unknown
// fields stay as written.
template <typename Field>
QString expandFields(const QString &pattern, Field field)
{
    QString out;
    out.reserve(pattern.size() + 16);
    for (qsizetype i = 0; i < pattern.size(); ++i) {
        const QChar c = pattern.at(i);
        if (c != u'%' || i + 1 >= pattern.size()) {
            out += c;
            continue;
        }
        const QChar key = pattern.at(i + 1);
        if (key == u'%') {
            out += u'%';
            ++i;
            continue;
        }
        const QString value = field(key);
        if (value.isNull()) {
            out += c;
            continue;
        }
        out += value;
        ++i;
    }
    return out;
}

QString dateField(QChar key, const QDateTime &when)
{
    switch (key.unicode()) {
    case u'Y':
        return QStringLiteral("%1").arg(when.date().year(), 4, 10, QLatin1Char('0'));
    case u'M':
        return twoDigits(when.date().month());
    case u'D':
        return twoDigits(when.date().day());
    default:
        return QString();
    }
}

bool isValidFileName(const QString &name)
{
    if (name.trimmed().isEmpty() || name == u"." || name == u"..")
        return false;
    for (const QChar c : name) {
        if (c == u'/' || c == u'\\' || c.unicode() == 0)
            return false;
    }
    return true;
}

// The start of the newest UTF-8 sequence at or after index.
qsizetype utf8Boundary(const QByteArray &bytes, qsizetype index)
{
    while (index < bytes.size() && (static_cast<unsigned char>(bytes.at(index)) & 0xC0) == 0x80)
        ++index;
    return index;
}

} // namespace

LogWriter::Options LogWriter::Options::fromPaneOptions(const PaneOptions &pane, const QString &portStamp)
{
    Options o;
    o.folder = pane.logFilePath;
    o.fileNamePattern = pane.logFileName;
    o.portStamp = portStamp;
    o.timestampEnabled = pane.logTimestampEnabled;
    o.timestampPattern = pane.logTimestamp;
    o.rotateAtSize = pane.logRotateAtSize;
    o.rotateSizeBytes = qint64(pane.logRotateSize) * 1024 * 1024;
    o.rotateAtTime = pane.logRotateAtTime;
    o.rotateTime = pane.logRotateTime;
    o.needHourTimeStamp = pane.needHourTimeStamp;
    return o;
}

LogWriter::LogWriter(Clock clock)
    : m_clock(clock ? std::move(clock) : Clock(systemNow))
{
    launchTime();
}

LogWriter::~LogWriter()
{
    close();
}

QDateTime LogWriter::launchTime()
{
    static const QDateTime launched = QDateTime::currentDateTime();
    return launched;
}

QString LogWriter::expandFileName(const QString &pattern, const QString &portStamp,
                                  const QDateTime &when, bool hourStamp)
{
    const QString port = sanitisedPortStamp(portStamp);
    QString name = expandFields(pattern, [&](QChar key) {
        return key == u'S' ? port : dateField(key, when);
    });
    if (hourStamp) {
        // The hour goes after the date, before the extension.
        const qsizetype dot = name.lastIndexOf(u'.');
        const QString hour = u'-' + twoDigits(when.time().hour());
        if (dot > 0)
            name.insert(dot, hour);
        else
            name += hour;
    }
    return name;
}

QString LogWriter::archiveFilePath(const QString &path, const QDateTime &moment)
{
    const QFileInfo info(path);
    const QString name = info.fileName();
    const QString stamp = u'-' + moment.toString(QLatin1String(kArchiveTimeFormat));
    const qsizetype dot = name.lastIndexOf(u'.');
    const QString archived = dot > 0 ? name.left(dot) + stamp + name.mid(dot) : name + stamp;
    return info.dir().filePath(archived);
}

QString LogWriter::formatTimestamp(const QString &pattern, const QDateTime &when)
{
    const QTime t = when.time();
    return expandFields(pattern, [&](QChar key) {
        switch (key.unicode()) {
        case u'h':
            return twoDigits(t.hour());
        case u'm':
            return twoDigits(t.minute());
        case u's':
            return twoDigits(t.second());
        case u'z':
            return QStringLiteral("%1").arg(t.msec(), 3, 10, QLatin1Char('0'));
        default:
            return dateField(key, when);
        }
    });
}

QString LogWriter::invalidNameText()
{
    return tr("Please input correct log file name!");
}

QString LogWriter::pathIsDirectoryText(const QString &path)
{
    return tr("Log path is a directory, not a file: %1").arg(path);
}

QString LogWriter::cannotCreateFolderText(const QString &folder)
{
    return tr("Could not create log directory '%1'").arg(folder);
}

QString LogWriter::cannotOpenText(const QString &path, const QString &reason)
{
    return tr("Could not open log file '%1': %2").arg(path, reason);
}

QString LogWriter::cannotWriteText(const QString &path, const QString &reason)
{
    return tr("Could not write log file '%1': %2").arg(path, reason);
}

QString LogWriter::cannotRotateText(const QString &path, const QString &reason)
{
    return tr("Could not rotate log file '%1': %2").arg(path, reason);
}

Result LogWriter::open(const Options &options)
{
    close();
    m_options = options;
    m_path.clear();
    m_lastRotation = QDateTime();
    m_atLineStart = true;

    const QDateTime now = m_clock();
    const QString name = expandFileName(options.fileNamePattern, options.portStamp, now,
                                        options.needHourTimeStamp);
    if (options.fileNamePattern.trimmed().isEmpty() || options.folder.trimmed().isEmpty()
        || !isValidFileName(name))
        return Result::failure(invalidNameText());
    m_path = QDir::cleanPath(QDir(options.folder).absoluteFilePath(name));
    return openFile(now);
}

Result LogWriter::openFile(const QDateTime &now)
{
    const QFileInfo info(m_path);
    if (info.isDir())
        return Result::failure(pathIsDirectoryText(m_path));
    const QString folder = info.absolutePath();
    if (!QDir().mkpath(folder))
        return Result::failure(cannotCreateFolderText(folder));

    const bool existed = info.exists();
    if (!existed)
        qCDebug(lcTerminal) << "Create log file as file does not exist. file:" << m_path;
    m_file.setFileName(m_path);
    // Unbuffered: a write reports what the system took, so text a full disk
    // refused stays pending instead of vanishing with the file's buffer.
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered))
        return Result::failure(cannotOpenText(m_path, m_file.errorString()));

    if (m_file.size() == 0) {
        const QString header = QStringLiteral("  Product: %1\n  Version: %2\nFile Name: %3\n"
                                              "Launch at: %4\nCurrent Time: %5\n")
                                   .arg(QLatin1String(AppIdentity::kApplicationName),
                                        QLatin1String(AppIdentity::kVersion), m_path,
                                        launchTime().toString(QLatin1String(kHeaderTimeFormat)),
                                        now.toString(QLatin1String(kHeaderTimeFormat)));
        const QByteArray bytes = header.toUtf8();
        if (writeAllOf(bytes) != bytes.size()) {
            const QString reason = m_file.errorString();
            m_file.close();
            return Result::failure(cannotOpenText(m_path, reason));
        }
        m_file.flush();
    }
    m_lastCheck = now;
    return Result::success();
}

void LogWriter::close()
{
    if (m_file.isOpen()) {
        writeOut();
        m_file.close();
    }
}

Result LogWriter::append(QStringView batchText)
{
    if (batchText.isEmpty())
        return Result::success();
    if (!m_options.timestampEnabled) {
        m_pending += batchText.toUtf8();
        m_atLineStart = batchText.endsWith(u'\n');
    } else {
        // Each line gets the time it reached the log; a line that goes on
        // in the next batch keeps the stamp it started with.
        const QString stamp = formatTimestamp(m_options.timestampPattern, m_clock());
        QString text;
        text.reserve(batchText.size() + stamp.size() * 4);
        DisplayFormatter::appendStampedLines(text, batchText, stamp, m_atLineStart);
        m_pending += text.toUtf8();
    }
    // While the disk refuses, the save tick tries again: writing on every
    // batch would only repeat the failure many times a second.
    if (m_writeFailing) {
        keepNewestPending();
        return Result::success();
    }
    if (m_pending.size() >= kWriteThresholdBytes)
        return writePending();
    return Result::success();
}

Result LogWriter::writePending()
{
    const Result result = tryWritePending();
    m_writeFailing = !result && !m_pending.isEmpty();
    return result;
}

Result LogWriter::tryWritePending()
{
    if (!m_file.isOpen()) {
        if (m_pending.isEmpty())
            return Result::success();
        const Result reopened = m_path.isEmpty() ? open(m_options) : openFile(m_clock());
        if (!reopened) {
            keepNewestPending();
            return reopened;
        }
    }

    const Result rotation = rotateIfDue(m_clock());
    if (!m_file.isOpen()) {
        keepNewestPending();
        return rotation;
    }
    const Result written = writeOut();
    return written ? rotation : written;
}

qint64 LogWriter::writeAllOf(const QByteArray &bytes)
{
    // A write the system takes only in part sets no error; the next one
    // fails with the reason (a full disk says so), which is what the user
    // must read.
    qint64 done = 0;
    while (done < bytes.size()) {
        const qint64 n = m_file.write(bytes.constData() + done, bytes.size() - done);
        if (n <= 0)
            break;
        done += n;
    }
    return done;
}

Result LogWriter::writeOut()
{
    bool complete = true;
    if (m_droppedBytes > 0) {
        // Say where text is missing, before what follows the gap. The count
        // goes on growing until the note is on disk, so it is said once
        // and covers every byte dropped.
        const QByteArray note = gapNoteText(m_droppedBytes).toUtf8();
        complete = writeAllOf(note) == note.size();
        if (complete)
            m_droppedBytes = 0;
    }
    if (complete && !m_pending.isEmpty()) {
        const qint64 written = writeAllOf(m_pending);
        m_pending.remove(0, written);
        complete = m_pending.isEmpty();
    }
    if (complete)
        return Result::success();

    keepNewestPending();
    const bool ownReason = m_file.error() != QFileDevice::NoError && !m_file.errorString().isEmpty();
    const QString reason = m_file.errorString();
    m_file.close();  // opened afresh by the next write
    if (!ownReason)
        return Result::failure(invalidNameText());
    return Result::failure(cannotWriteText(m_path, reason));
}

Result LogWriter::rotateIfDue(const QDateTime &now)
{
    bool due = false;
    if (m_options.rotateAtSize && m_options.rotateSizeBytes > 0 && m_file.size() > m_options.rotateSizeBytes) {
        qCDebug(lcTerminal) << "Rotate log file for file size:" << m_file.size();
        due = true;
    }
    if (m_options.rotateAtTime) {
        // The save timer checks every few seconds, so waiting for a check
        // that lands right on the time (even within 200 ms of it) would
        // miss most days. The rotation is due instead once the clock has
        // passed the time since the previous check, however late this one.
        const QTime at = m_options.rotateTime.isValid() ? m_options.rotateTime : QTime(0, 0);
        QDateTime moment(now.date(), at);
        if (moment > now)
            moment = moment.addDays(-1);
        if (m_lastCheck.isValid() && m_lastCheck < moment) {
            qCDebug(lcTerminal) << "Rotate log file for time";
            due = true;
        }
    }
    m_lastCheck = now;
    if (!due)
        return Result::success();
    if (m_lastRotation.isValid() && m_lastRotation.msecsTo(now) < kRotationGuardMs) {
        qCDebug(lcTerminal) << "Keep current log file because it was rotated recently";
        return Result::success();
    }
    return rotate(now);
}

Result LogWriter::rotate(const QDateTime &now)
{
    // A failed attempt also counts, so that a file that cannot be renamed
    // is retried at the guard's pace rather than on every write.
    m_lastRotation = now;
    m_file.flush();
    m_file.close();

    const QString archive = archiveFilePath(m_path, now);
    qCDebug(lcTerminal) << "Archive log file" << m_path << "to" << archive;
    QFile current(m_path);
    if (!current.rename(archive)) {
        const QString reason = current.errorString();
        // Keep writing to the file as it is.
        const Result reopened = openFile(now);
        Q_UNUSED(reopened);
        return Result::failure(cannotRotateText(m_path, reason));
    }
    qCDebug(lcTerminal) << "Change log file to" << m_path;
    return openFile(now);
}

void LogWriter::keepNewestPending()
{
    if (m_pending.size() <= kPendingLimitBytes)
        return;
    const qsizetype cut = utf8Boundary(m_pending, m_pending.size() - kPendingLimitBytes);
    m_pending.remove(0, cut);
    m_droppedBytes += cut;
}

QString LogWriter::gapNoteText(qint64 droppedBytes)
{
    return tr("\n-- %L1 bytes of log text were lost here: they could not be written in time --\n").arg(droppedBytes);
}

Result LogWriter::checkCurrentFile() const
{
    if (m_path.isEmpty() || !QFileInfo::exists(m_path) || QFileInfo(m_path).isDir())
        return Result::failure(tr("Current log file does not exist."));
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly))
        return Result::failure(cannotOpenCurrentText());
    return Result::success();
}

QString LogWriter::cannotOpenCurrentText()
{
    return tr("Could not open current log file.");
}
