#include "MovieFacts.h"

#include <QFileInfo>
#include <QProcess>

void probeMovieInto(MovieFacts& facts, const QString& path) {
    QProcess ffprobe;
    ffprobe.start(QStringLiteral("ffprobe"),
                  {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-count_frames"),
                   QStringLiteral("-select_streams"), QStringLiteral("v:0"),
                   QStringLiteral("-show_entries"),
                   QStringLiteral("stream=nb_read_frames:format=duration"), QStringLiteral("-of"),
                   QStringLiteral("default=nw=1:nk=1"), path});
    ffprobe.waitForFinished(300000);
    const auto lines = QString::fromUtf8(ffprobe.readAllStandardOutput()).split(QLatin1Char('\n'));
    if (lines.size() >= 2) {
        facts.frames = lines[0].toLongLong();
        facts.duration = lines[1].toDouble();
    }
    facts.bytes = QFileInfo(path).size();
}
