#include "support/ProcessLibraries.h"

#include "support/EventLoop.h"

#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

namespace ProcessLibraries {

namespace {

// What may stay resident of the files' pages of libraries whose code has been released: the
// pages their read-only segments share with a neighbour, and what is relocated in place, a
// page or two each (a movie's libraries' whole code is about 5 MB).
constexpr qint64 kReleasedKilobytes = 2048;

QByteArray read(qint64 processID, const char* file) {
    QFile proc(QStringLiteral("/proc/%1/%2").arg(processID).arg(QLatin1String(file)));
    if (!proc.open(QIODevice::ReadOnly)) {
        ADD_FAILURE() << "cannot read the " << file << " of process " << processID;
        return {};
    }
    return proc.readAll();
}

} // namespace

bool maps(qint64 processID, const QString& name) {
    const QRegularExpression library(QStringLiteral("/%1[^/]*$").arg(name),
                                     QRegularExpression::MultilineOption);
    return library.match(QString::fromLocal8Bit(read(processID, "maps"))).hasMatch();
}

ResidentCode residentCode(qint64 processID) {
    ResidentCode libraries;
    const QRegularExpression mapping(
        QStringLiteral("^[0-9a-f]+-[0-9a-f]+ (\\S{4}) \\S+ \\S+ \\d+\\s+(/\\S+\\.so[.0-9]*)$"));
    const QRegularExpression field(QStringLiteral("^(Rss|Anonymous):\\s+(\\d+) kB$"));
    QString library; // the current mapping's, when it is a read-only mapping of one
    for (const QByteArray& line : read(processID, "smaps").split('\n')) {
        const QString text = QString::fromLocal8Bit(line);
        if (const QRegularExpressionMatch header = mapping.match(text); header.hasMatch()) {
            library = header.captured(2);
            libraries[library] += 0;
            if (header.captured(1).contains(QLatin1Char('w'))) {
                library.clear();
            }
        } else if (const QRegularExpressionMatch size = field.match(text); size.hasMatch()) {
            if (!library.isEmpty()) {
                const qint64 kilobytes = size.captured(2).toLongLong();
                libraries[library] +=
                    size.captured(1) == QLatin1String("Rss") ? kilobytes : -kilobytes;
            }
        } else if (!text.isEmpty() && !text.front().isUpper()) {
            library.clear(); // a mapping of something else
        }
    }
    return libraries;
}

bool codeLoadedSinceIsReleased(qint64 processID, const ResidentCode& before, QString& report) {
    QStringList since;
    qint64 resident = 0;
    const auto released = [&] {
        since.clear();
        resident = 0;
        const ResidentCode now = residentCode(processID);
        for (auto library = now.begin(); library != now.end(); ++library) {
            if (!before.contains(library.key())) {
                since << QStringLiteral("%1 (%2 kB)").arg(library.key()).arg(library.value());
                resident += library.value();
            }
        }
        return !since.isEmpty() && resident < kReleasedKilobytes;
    };
    const bool done = processEventsUntil(released, 10000);
    report = QStringLiteral("%1 kB of code resident in %2 libraries: %3")
                 .arg(resident)
                 .arg(since.size())
                 .arg(since.join(QStringLiteral(", ")));
    return done;
}

} // namespace ProcessLibraries
