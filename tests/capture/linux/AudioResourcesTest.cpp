#include "capture/linux/ApplicationResourceDirectories.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

void makeFile(const QString& path, bool executable) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("#!/bin/sh\nexit 0\n");
    file.close();
    QFile::Permissions permissions = QFile::ReadOwner | QFile::WriteOwner;
    if (executable) {
        permissions |= QFile::ExeOwner;
    }
    ASSERT_TRUE(file.setPermissions(permissions));
}

} // namespace

TEST(AudioResources, StandardFoldersAreTheBuildAndInstalledResourcesBesideTheExecutable) {
    const QDir executableDir(QCoreApplication::applicationDirPath());
    const ApplicationResourceDirectories resources;
    EXPECT_EQ(resources.directories(),
              (QStringList{QDir::cleanPath(executableDir.filePath(QStringLiteral("../resources"))),
                           QDir::cleanPath(executableDir.filePath(
                               QStringLiteral("../share/tessarel/resources")))}));
}

TEST(AudioResources, FirstFolderHoldingTheExecutableWins) {
    QTemporaryDir first;
    QTemporaryDir second;
    makeFile(second.filePath(QStringLiteral("lame")), true);
    ApplicationResourceDirectories resources({first.path(), second.path()});
    EXPECT_EQ(resources.pathForResource(QStringLiteral("lame")),
              second.filePath(QStringLiteral("lame")));

    makeFile(first.filePath(QStringLiteral("lame")), true);
    EXPECT_EQ(resources.pathForResource(QStringLiteral("lame")),
              first.filePath(QStringLiteral("lame")));
}

TEST(AudioResources, FileThatCannotBeRunIsNotAResource) {
    QTemporaryDir dir;
    makeFile(dir.filePath(QStringLiteral("lame")), false);
    ASSERT_TRUE(QDir(dir.path()).mkdir(QStringLiteral("other")));
    ApplicationResourceDirectories resources({dir.path()});
    EXPECT_EQ(resources.pathForResource(QStringLiteral("lame")), std::nullopt);
    EXPECT_EQ(resources.pathForResource(QStringLiteral("other")), std::nullopt);
}

TEST(AudioResources, ProgramsOnPathAreNeverUsed) {
    QTemporaryDir onPath;
    QTemporaryDir empty;
    makeFile(onPath.filePath(QStringLiteral("lame")), true);
    const QByteArray previous = qgetenv("PATH");
    qputenv("PATH", onPath.path().toUtf8() + ':' + previous);
    ApplicationResourceDirectories resources({empty.path()});
    EXPECT_EQ(resources.pathForResource(QStringLiteral("lame")), std::nullopt);
    qputenv("PATH", previous);
}

TEST(AudioResources, BuildTreeCarriesLameAmongItsResources) {
    ApplicationResourceDirectories resources({QStringLiteral(TESSAREL_BUILD_RESOURCE_DIR)});
    EXPECT_TRUE(resources.pathForResource(QStringLiteral("lame")).has_value());
}
