#pragma once

#include "common/result.h"
#include "common/paneoptions.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QString>
#include <QStringView>
#include <QTime>

#include <functional>

// A pane's data log: the text of every drain of the receive queue, written
// as UTF-8 to a file that rotates by size or at a time of day. Text is
// collected as it comes and written when asked (the pane's save timer) or
// when a good amount has piled up. A failure is reported as a value and
// never costs what the file already holds.
class LogWriter
{
    Q_DECLARE_TR_FUNCTIONS(LogWriter)

public:
    // The time source; tests pass a fake clock instead of waiting.
    using Clock = std::function<QDateTime()>;

    struct Options
    {
        QString folder;
        // %S the port, %Y year, %M month, %D day.
        QString fileNamePattern = QStringLiteral("tsl_%S-%Y%M%D.log");
        QString portStamp;  // what %S stands for; unsafe characters become '_'
        bool timestampEnabled = true;
        // %h hour, %m minute, %s second, %z milliseconds (also %Y %M %D).
        QString timestampPattern = QStringLiteral("[%h:%m:%s.%z] ");
        bool rotateAtSize = false;
        qint64 rotateSizeBytes = 10LL * 1024 * 1024;  // 0 or less: no size rotation
        bool rotateAtTime = false;
        QTime rotateTime = QTime(0, 0, 0);
        bool needHourTimeStamp = false;

        // The size limit is entered in MiB.
        static Options fromPaneOptions(const PaneOptions &pane, const QString &portStamp);
        bool operator==(const Options &other) const = default;
    };

    // A rotation this soon after the previous one is skipped.
    static constexpr qint64 kRotationGuardMs = 30000;
    // Pending text this large is written at once rather than at the next tick.
    static constexpr qint64 kWriteThresholdBytes = 1024 * 1024;
    // While writes keep failing, at most this much (the newest) is kept.
    static constexpr qint64 kPendingLimitBytes = 16 * 1024 * 1024;

    explicit LogWriter(Clock clock = Clock());
    ~LogWriter();
    LogWriter(const LogWriter &) = delete;
    LogWriter &operator=(const LogWriter &) = delete;

    // Opens (or creates, with a header) the file named by the options. Text
    // still pending for a previous file is written there first.
    Result open(const Options &options);
    // Writes what is pending and closes the file.
    void close();
    bool isOpen() const { return m_file.isOpen(); }
    QString filePath() const { return m_path; }
    const Options &options() const { return m_options; }

    // Takes the batch text of one drain; with timestamps on, each line gets
    // the timestamp pattern at its start. Writes at once when much is
    // pending, and reports that write's failure.
    Result append(QStringView batchText);
    // Checks rotation, then writes what is pending. When the file is not
    // open (an earlier open or rotation failed), it is opened again first.
    Result writePending();
    qint64 pendingBytes() const { return m_pending.size(); }

    // Whether the current file can be shown to the user.
    Result checkCurrentFile() const;

    static QString expandFileName(const QString &pattern, const QString &portStamp,
                                  const QDateTime &when, bool hourStamp);
    // The name a rotated file is archived under: the moment is added before
    // the extension, as in "tsl_ser-20240101-20240102-000000-000.log".
    static QString archiveFilePath(const QString &path, const QDateTime &moment);
    static QString formatTimestamp(const QString &pattern, const QDateTime &when);

    // The program's start as the header reports it: the first call fixes it.
    static QDateTime launchTime();

    static QString invalidNameText();
    static QString pathIsDirectoryText(const QString &path);
    static QString cannotCreateFolderText(const QString &folder);
    static QString cannotOpenText(const QString &path, const QString &reason);
    static QString cannotOpenCurrentText();
    static QString cannotWriteText(const QString &path, const QString &reason);
    static QString cannotRotateText(const QString &path, const QString &reason);
    // The line written where pending text had to be dropped.
    static QString gapNoteText(qint64 droppedBytes);

private:
    Result openFile(const QDateTime &now);
    Result rotateIfDue(const QDateTime &now);
    Result rotate(const QDateTime &now);
    Result tryWritePending();
    Result writeOut();
    qint64 writeAllOf(const QByteArray &bytes);
    void keepNewestPending();

    Clock m_clock;
    Options m_options;
    QString m_path;
    QFile m_file;
    QByteArray m_pending;
    QDateTime m_lastCheck;
    QDateTime m_lastRotation;
    bool m_atLineStart = true;
    // Dropped from the front of the pending text since the last gap note
    // reached the file.
    qint64 m_droppedBytes = 0;
    // The last write failed: batches wait for the next tick.
    bool m_writeFailing = false;
};
