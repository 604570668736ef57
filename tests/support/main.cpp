#include <QCoreApplication>

#include <gtest/gtest.h>

int main(int argc, char **argv) {
    // A core application so that image format plugins and resources are found.
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
