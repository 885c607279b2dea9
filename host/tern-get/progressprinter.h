#pragma once

#include <QString>
#include <QTextStream>

// How tern-get tells what it is doing. Human progress goes to stderr: a line redrawn in place on
// a terminal (Bar) or a line every two seconds (Lines). JSON progress is for front ends: stdout
// then carries one JSON object per line and nothing else, progress objects while the download
// runs and one result object at the end. Notes (resuming, interrupted) go to stderr unless
// quiet; errors always do.
class ProgressPrinter {
public:
    enum class Style { Bar, Lines, Json };

    // One look at a running download.
    struct Snapshot {
        QString state;        // "downloading", "merging", "stopping" or "finished"
        qint64 done = 0;      // bytes
        qint64 total = -1;    // bytes, -1 while unknown
        double fraction = -1; // 0 to 1, -1 while unknown
        qint64 speed = 0;     // bytes per second
        qint64 secondsLeft = -1;
        int segmentsDone = 0;
        int segmentsTotal = 0; // 0 for a plain file
    };

    // The state of a download with the given AbstractDownloadTask bits.
    static QString stateOf(quint64 tasks, bool stopping, bool finished);

    ProgressPrinter(Style style, bool quiet, QTextStream& err);

    int intervalMs() const;
    void progress(const Snapshot& snapshot, bool final);
    void note(const QString& text);
    void error(const QString& text);
    // The end of the run: exit code 0 saved the output, 1 failed with error, 130 was interrupted.
    void result(int exitCode, const QString& output, const QString& error);

private:
    QString humanLine(const Snapshot& snapshot) const;
    void breakBarLine();

    Style m_style;
    bool m_quiet;
    QTextStream& m_err;
    QTextStream m_out;
    bool m_barShown = false; // a progress bar line waits for its line end
};
