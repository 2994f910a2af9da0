#include "support/Pactl.h"

#include <QProcess>

#include <stdexcept>

QString pactl(const QProcessEnvironment& environment, const QStringList& arguments) {
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral("pactl"), arguments);
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        throw std::runtime_error((QStringLiteral("pactl ") + arguments.join(QLatin1Char(' ')) +
                                  QStringLiteral(" failed: ") +
                                  QString::fromLocal8Bit(process.readAllStandardError()))
                                     .toStdString());
    }
    return QString::fromLocal8Bit(process.readAllStandardOutput());
}
