#include "progressprinter.h"

#include "ratetext.h"

#include <terncl/inet/qt/download/abstractdownloadtask.h>

#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

namespace {
QJsonValue orNull(qint64 value) {
    return value < 0 ? QJsonValue() : QJsonValue(value);
}

QString outcomeOf(int exitCode) {
    switch (exitCode) {
    case 0:
        return QStringLiteral("done");
    case 130:
        return QStringLiteral("interrupted");
    default:
        return QStringLiteral("failed");
    }
}
} // namespace

QString ProgressPrinter::stateOf(quint64 tasks, bool stopping, bool finished) {
    if (finished)
        return QStringLiteral("finished");
    if (stopping)
        return QStringLiteral("stopping");
    const quint64 finishing =
        AbstractDownloadTask::Merging | AbstractDownloadTask::PerformingFilesOperations;
    if ((tasks & finishing) != 0 && (tasks & quint64(AbstractDownloadTask::Downloading)) == 0)
        return QStringLiteral("merging");
    return QStringLiteral("downloading");
}

ProgressPrinter::ProgressPrinter(Style style, bool quiet, QTextStream& err)
    : m_style(style)
    , m_quiet(quiet)
    , m_err(err)
    , m_out(stdout) {}

int ProgressPrinter::intervalMs() const {
    switch (m_style) {
    case Style::Bar:
        return 250;
    case Style::Json:
        return 1000;
    default:
        return 2000;
    }
}

void ProgressPrinter::progress(const Snapshot& snapshot, bool final) {
    if (m_style == Style::Json) {
        const QJsonObject object{
            {QStringLiteral("type"), QStringLiteral("progress")},
            {QStringLiteral("state"), snapshot.state},
            {QStringLiteral("bytesDone"), snapshot.done},
            {QStringLiteral("bytesTotal"), orNull(snapshot.total)},
            {QStringLiteral("fraction"),
             snapshot.fraction < 0 ? QJsonValue() : QJsonValue(qMin(snapshot.fraction, 1.0))},
            {QStringLiteral("speed"), snapshot.speed},
            {QStringLiteral("secondsLeft"), orNull(snapshot.secondsLeft)},
            {QStringLiteral("segmentsDone"), snapshot.segmentsDone},
            {QStringLiteral("segmentsTotal"), snapshot.segmentsTotal}};
        m_out << QJsonDocument(object).toJson(QJsonDocument::Compact) << Qt::endl;
        return;
    }
    if (m_quiet)
        return;
    if (m_style == Style::Bar) {
        m_err << "\r\033[K" << humanLine(snapshot) << (final ? "\n" : "") << Qt::flush;
        m_barShown = !final;
    } else {
        m_err << "progress: " << humanLine(snapshot) << Qt::endl;
    }
}

QString ProgressPrinter::humanLine(const Snapshot& snapshot) const {
    const QString percent =
        snapshot.fraction >= 0
            ? QStringLiteral("%1%").arg(qMin(snapshot.fraction, 1.0) * 100, 5, 'f', 1)
            : QStringLiteral("  ?%");
    QString line = QStringLiteral("%1  %2").arg(percent, RateText::bytes(snapshot.done));
    if (snapshot.total > 0)
        line += QStringLiteral(" of ") + RateText::bytes(snapshot.total);
    line += QStringLiteral("  %1/s  ETA %2")
                .arg(RateText::bytes(snapshot.speed), RateText::duration(snapshot.secondsLeft));
    if (snapshot.segmentsTotal > 0)
        line += QStringLiteral("  segments %1/%2")
                    .arg(snapshot.segmentsDone)
                    .arg(snapshot.segmentsTotal);
    return line;
}

void ProgressPrinter::breakBarLine() {
    if (m_barShown)
        m_err << Qt::endl;
    m_barShown = false;
}

void ProgressPrinter::note(const QString& text) {
    if (m_quiet)
        return;
    breakBarLine();
    m_err << "tern-get: " << text << Qt::endl;
}

void ProgressPrinter::error(const QString& text) {
    breakBarLine();
    m_err << "tern-get: " << text << Qt::endl;
}

void ProgressPrinter::result(int exitCode, const QString& output, const QString& error) {
    if (m_style == Style::Json) {
        QJsonObject object{{QStringLiteral("type"), QStringLiteral("result")},
                           {QStringLiteral("outcome"), outcomeOf(exitCode)},
                           {QStringLiteral("exitCode"), exitCode},
                           {QStringLiteral("output"), output}};
        if (!error.isEmpty())
            object.insert(QStringLiteral("error"), error);
        m_out << QJsonDocument(object).toJson(QJsonDocument::Compact) << Qt::endl;
    } else if (exitCode == 0 && !m_quiet) {
        m_out << "Saved to " << output << Qt::endl;
    }
}
