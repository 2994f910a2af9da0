#include "capture/linux/ApplicationResourceDirectories.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace {

QStringList standardDirectories() {
    const QDir executableDir(QCoreApplication::applicationDirPath());
    return {
        QDir::cleanPath(executableDir.filePath(QStringLiteral("../" TESSAREL_RESOURCE_DIR_NAME))),
        QDir::cleanPath(
            executableDir.filePath(QStringLiteral("../" TESSAREL_INSTALL_RESOURCE_DIR))),
    };
}

} // namespace

ApplicationResourceDirectories::ApplicationResourceDirectories()
    : directories_(standardDirectories()) {}

ApplicationResourceDirectories::ApplicationResourceDirectories(QStringList directories)
    : directories_(std::move(directories)) {}

std::optional<QString> ApplicationResourceDirectories::pathForResource(const QString& name) {
    for (const QString& directory : directories_) {
        const QFileInfo candidate(QDir(directory).filePath(name));
        if (candidate.isFile() && candidate.isExecutable()) {
            return candidate.absoluteFilePath();
        }
    }
    return std::nullopt;
}
