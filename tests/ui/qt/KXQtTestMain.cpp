// Entry point of the Qt screens' tests: fresh XDG directories (as every test program has), the
// offscreen platform unless another was asked for, and one QApplication for the process.
#include "KXTestDirectories.h"

#include <QApplication>

#include <gtest/gtest.h>

#include <unistd.h>

// Under AddressSanitizer: Chromium inside Qt WebEngine deletes some objects with a mismatched
// size and, like fontconfig, keeps allocations until the process ends. Neither is the screens'
// doing; the screens' own memory is still checked. (Options given in ASAN_OPTIONS still win;
// the hooks are exported because the project builds with hidden visibility.)
extern "C" __attribute__((visibility("default"), used)) const char* __asan_default_options() {
    return "new_delete_type_mismatch=0";
}
extern "C" __attribute__((visibility("default"), used)) const char* __lsan_default_suppressions() {
    return "leak:libQt6WebEngineCore.so\nleak:libfontconfig.so\n";
}

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
