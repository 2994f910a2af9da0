#include "app/PortalPermission.h"

#include "capture/CaptureVocabulary.h"
#include "capture/linux/portal/DesktopPortal.h"

#include <QEventLoop>
#include <QTimer>

#include <chrono>

bool PortalPermission::preflightScreenCaptureAccess() {
    if (portal_.holdsGrant()) {
        return true;
    }
    if (!asking_.valid() ||
        asking_.wait_for(std::chrono::seconds(0)) == std::future_status::ready) {
        asking_ = std::async(std::launch::async, [this] {
                      try {
                          return portal_.askForGrant();
                      } catch (const PlatformError&) {
                          return true;
                      }
                  }).share();
    }
    const std::shared_future<bool> answer = asking_;
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready) {
            loop.quit();
        }
    });
    poll.start(20);
    if (answer.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        loop.exec();
    }
    return answer.get();
}
