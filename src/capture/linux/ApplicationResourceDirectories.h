#pragma once

#include "capture/CapturePlatform.h"

#include <QStringList>

// The application's own resources, looked up in a fixed list of folders and never on PATH.
// The standard list holds, relative to the folder of the running executable, the build tree's
// "../resources" and the installed tree's "../share/tessarel/resources".
//
// Threads: any, after construction (the list never changes).
class ApplicationResourceDirectories final : public ApplicationResources {
public:
    // Needs a QCoreApplication to know where the executable is.
    ApplicationResourceDirectories();
    explicit ApplicationResourceDirectories(QStringList directories);

    const QStringList& directories() const { return directories_; }
    // The first executable file named `name` in the folders, in list order.
    std::optional<QString> pathForResource(const QString& name) override;

private:
    QStringList directories_;
};
