#include <QCoreApplication>

#include <gtest/gtest.h>

// Tests that need an event loop find a QCoreApplication running on the main thread.
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    QCoreApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
