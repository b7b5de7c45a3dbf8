// Entry point of the Qt screens' tests: fresh XDG directories (as every test program has), the
// offscreen platform unless another was asked for, and one QApplication for the process.
#include "KXTestDirectories.h"

#include <QApplication>

#include <gtest/gtest.h>

#include <unistd.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    // Chromium refuses its sandbox as root; tests run in containers as root.
    if (geteuid() == 0) {
        qputenv("QTWEBENGINE_DISABLE_SANDBOX", "1");
    }
    qputenv("QTWEBENGINE_CHROMIUM_FLAGS", "--disable-gpu --no-zygote");
    QCoreApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    KXTestDirectories directories;
    QApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
