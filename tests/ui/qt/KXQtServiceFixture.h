#pragma once

// The Qt platform installed and the whole library pointed at a loopback service, as a Qt
// application that engaged would be: a token in hand, guest "g1", inbox domain "d1".
#include "KXLoopbackService.h"
#include "KXServiceAddress.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXQtPlatform.h>

#include <QAbstractButton>
#include <QApplication>
#include <QMessageBox>
#include <QTest>

#include <gtest/gtest.h>

#include <functional>
#include <string>

class KXQtServiceTest : public ::testing::Test {
protected:
    static constexpr const char* kInbox = "/KXFrontier-stg/guests/g1/inboxes/d1";

    std::shared_ptr<KXQtPlatform> platform = KXQtPlatform::install("com.example.screens-tests");
    KXLoopbackService service;

    KXQtServiceTest() {
        kxtest::pointServiceAt(service.baseURL());
        KXHTTPSessionManager::sharedManager().setBearerToken(
            std::make_shared<KXBearerToken>("test-token", std::nullopt));
        KXConfig::defaultConfig().setInboxDomainId("d1");
        KXGuest::currentGuest()->setExternalId("g1");
    }

    static bool waitFor(const std::function<bool()>& done, int milliseconds = 15000) {
        return QTest::qWaitFor(done, milliseconds);
    }

    /// The requests seen so far whose method is `method` and whose target starts with `prefix`.
    std::vector<std::string> targets(const std::string& method, const std::string& prefix) const {
        std::vector<std::string> seen;
        for (const KXRecordedRequest& request : service.requests()) {
            if (request.method == method && request.path.starts_with(prefix)) {
                seen.push_back(request.path);
            }
        }
        return seen;
    }

    /// The message box on screen, waiting for it to appear; null when none appears.
    static QMessageBox* shownMessageBox() {
        QMessageBox* found = nullptr;
        waitFor(
            [&] {
                for (QWidget* widget : QApplication::topLevelWidgets()) {
                    auto* box = qobject_cast<QMessageBox*>(widget);
                    if (box != nullptr && box->isVisible()) {
                        found = box;
                        return true;
                    }
                }
                return false;
            },
            5000);
        return found;
    }

    /// Presses the button of the shown message box titled `title`.
    static void press(QMessageBox* box, const QString& title) {
        for (QAbstractButton* button : box->buttons()) {
            if (button->text() == title) {
                QTest::mouseClick(button, Qt::LeftButton);
                return;
            }
        }
        ADD_FAILURE() << "no button " << title.toStdString();
    }
};
