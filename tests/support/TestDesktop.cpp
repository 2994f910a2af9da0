#include "support/TestDesktop.h"

#include "support/EventLoop.h"

#include <QApplication>
#include <QProcess>

#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>

namespace {

std::unique_ptr<VirtualDisplay>& displayInstance() {
    static std::unique_ptr<VirtualDisplay> instance;
    return instance;
}

std::map<TestDesktop::Program, std::unique_ptr<QProcess>>& programs() {
    static std::map<TestDesktop::Program, std::unique_ptr<QProcess>> running;
    return running;
}

// Whether some client owns the selection: how window managers and compositors announce
// themselves.
bool selectionOwned(const QByteArray& name) {
    xcb_connection_t* connection = xcb_connect(TestDesktop::display().name().constData(), nullptr);
    const std::unique_ptr<xcb_intern_atom_reply_t, decltype(&std::free)> atom(
        xcb_intern_atom_reply(
            connection,
            xcb_intern_atom(connection, 0, static_cast<uint16_t>(name.size()), name.constData()),
            nullptr),
        &std::free);
    bool owned = false;
    if (atom) {
        const std::unique_ptr<xcb_get_selection_owner_reply_t, decltype(&std::free)> owner(
            xcb_get_selection_owner_reply(connection,
                                          xcb_get_selection_owner(connection, atom->atom), nullptr),
            &std::free);
        owned = owner && owner->owner != XCB_NONE;
    }
    xcb_disconnect(connection);
    return owned;
}

bool taskPanelMapped() {
    return !TestDesktop::run(QStringLiteral("xdotool"),
                             {QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                              QStringLiteral("--class"), QStringLiteral("tint2")})
                .trimmed()
                .isEmpty();
}

} // namespace

VirtualDisplay& TestDesktop::display() {
    return *displayInstance();
}

QByteArray TestDesktop::run(const QString& program, const QStringList& arguments) {
    try {
        return display().run(program, arguments);
    } catch (const std::runtime_error&) {
        // xdotool search fails when it finds nothing.
        return {};
    }
}

void TestDesktop::start(Program program) {
    if (programs().count(program) != 0) {
        return;
    }
    QString executable;
    QStringList arguments;
    std::function<bool()> ready;
    switch (program) {
    case Program::windowManager:
        executable = QStringLiteral("openbox");
        ready = [] { return selectionOwned(QByteArrayLiteral("WM_S0")); };
        break;
    case Program::compositor:
        // No shadows or fading: what is under a window then stays exactly as it was.
        executable = QStringLiteral("picom");
        arguments = {QStringLiteral("--backend"), QStringLiteral("xrender"),
                     QStringLiteral("--no-fading-openclose")};
        ready = [] { return selectionOwned(QByteArrayLiteral("_NET_WM_CM_S0")); };
        break;
    case Program::taskPanel:
        executable = QStringLiteral("tint2");
        ready = taskPanelMapped;
        break;
    }
    auto process = std::make_unique<QProcess>();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DISPLAY"), QString::fromLatin1(display().name()));
    process->setProcessEnvironment(environment);
    process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process->setStandardOutputFile(QProcess::nullDevice());
    process->start(executable, arguments);
    ASSERT_TRUE(process->waitForStarted()) << executable.toStdString() << " did not start";
    ASSERT_TRUE(processEventsUntil(ready, 20000))
        << executable.toStdString() << " did not take over";
    programs()[program] = std::move(process);
    display().sync();
}

void TestDesktop::stop(Program program) {
    auto found = programs().find(program);
    if (found == programs().end()) {
        return;
    }
    found->second->terminate();
    found->second->waitForFinished();
    programs().erase(found);
    display().sync();
}

// Windowed tests run on the X display started here; listing the tests needs none.
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (testing::GTEST_FLAG(list_tests)) {
        return RUN_ALL_TESTS();
    }
    displayInstance() = std::make_unique<VirtualDisplay>(1600, 1000);
    qputenv("DISPLAY", TestDesktop::display().name());
    qputenv("QT_QPA_PLATFORM", "xcb");
    int result = 0;
    {
        QApplication application(argc, argv);
        result = RUN_ALL_TESTS();
        for (auto& [program, process] : programs()) {
            process->terminate();
            process->waitForFinished();
        }
        programs().clear();
    }
    displayInstance().reset();
    return result;
}
