#pragma once

#include "controller/ControllerPlatform.h"

// The file manager and the desktop's URL handlers. GUI thread only.
class DesktopWorkspace : public Workspace {
public:
    // Asks the file manager over D-Bus (org.freedesktop.FileManager1.ShowItems); when no file
    // manager answers, opens the folder of the first file instead.
    void activateFileViewerSelecting(const QList<QUrl>& urls) override;
    void openURL(const QUrl& url) override;
    // The folder of the running executable.
    QUrl applicationBundleURL() override;
};
