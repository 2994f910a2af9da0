#include "support/EventLoop.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

const QString applicationID = QStringLiteral("io.github.tessarel.Tessarel");

// A private session bus and Tessarel processes on Qt's offscreen platform, which has no tray.
class SingleInstanceTest : public testing::Test {
protected:
    void SetUp() override {
        bus.setProgram(QStringLiteral("dbus-daemon"));
        bus.setArguments({QStringLiteral("--session"), QStringLiteral("--nofork"),
                          QStringLiteral("--print-address")});
        bus.start();
        ASSERT_TRUE(bus.waitForStarted(30000));
        ASSERT_TRUE(processEventsUntil([this] { return bus.canReadLine(); }));
        address = QString::fromUtf8(bus.readLine()).trimmed();
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), address);
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime.path());
    }

    void TearDown() override {
        for (QProcess* process : {&first, &second}) {
            if (process->state() != QProcess::NotRunning) {
                process->kill();
                process->waitForFinished(30000);
            }
        }
        bus.kill();
        bus.waitForFinished(30000);
    }

    void start(QProcess& process) {
        process.setProcessEnvironment(environment);
        process.setProgram(QStringLiteral(TESSAREL_PROGRAM));
        process.start();
        ASSERT_TRUE(process.waitForStarted(30000));
    }

    bool nameOwned() {
        QDBusConnection connection =
            QDBusConnection::connectToBus(address, QStringLiteral("probe"));
        const bool owned = connection.interface()->isServiceRegistered(applicationID);
        QDBusConnection::disconnectFromBus(QStringLiteral("probe"));
        return owned;
    }

    QTemporaryDir runtime;
    QProcess bus;
    QString address;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    QProcess first;
    QProcess second;
};

} // namespace

TEST_F(SingleInstanceTest, ASecondStartHandsOverToTheRunningInstanceAndEnds) {
    start(first);
    ASSERT_TRUE(processEventsUntil([this] { return nameOwned(); }));
    start(second);
    ASSERT_TRUE(second.waitForFinished(30000));
    EXPECT_EQ(second.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(second.exitCode(), 0);
    EXPECT_EQ(first.state(), QProcess::Running);
    EXPECT_TRUE(nameOwned());
}
