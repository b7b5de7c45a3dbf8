// The inbox screen with 10,000 messages loaded, against plain Qt doing the same work with the
// same strings, in the same run, on the offscreen platform:
//
//   ModelData/Inbox       data() of every role the inbox's delegate and accessibility read
//                         (title, sender, time text, read, empty cell, accessible text) for
//                         every row of the screen's model
//   ModelData/Standard    the baseline: the same calls on a QStandardItemModel holding the
//                         same values, computed once beforehand
//   Paint/Inbox           one screenful of the inbox screen (400 x 700) rendered into an image
//   Paint/StringList      the baseline: a QListView over a QStringListModel of the same titles,
//                         rendered the same way at the same size
//
// The messages come the way an application gets them: the screen fetches them from a loopback
// server that answers the inbox request with all 10,000 at once, which also fills
// KXInbox::shared(). The counter child_widgets is the number of widgets under the screen's list
// view with every row loaded; it stays the same for 20 rows or 10,000, since rows are painted by
// one delegate. The interesting numbers are ModelData/Inbox / ModelData/Standard and
// Paint/Inbox / Paint/StringList. KX_BENCH_SAVE_FRAME=<file.png> saves the painted screen.

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxTableViewController.h>
#include <KXClientFramework/KXQtPlatform.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QListView>
#include <QPainter>
#include <QStandardItemModel>
#include <QStringListModel>

#include <benchmark/benchmark.h>
#include <httplib.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

/// Runs the event loop until `done` or `milliseconds` pass; whether `done` came true.
template <typename Done>
bool runUntil(Done done, int milliseconds) {
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() < milliseconds) {
        QApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return done();
}

constexpr int kMessages = 10000;
const QSize kWindow(400, 700);

// The inbox model's roles: the title, then its own roles from Qt::UserRole + 1 (sender, time
// text, read, empty cell), then the accessible text. The time text and the accessible text
// (which contains it) are formatted on every call; the others are read from the message.
const std::vector<int> kRoles{Qt::DisplayRole,  Qt::UserRole + 1, Qt::UserRole + 2,
                              Qt::UserRole + 3, Qt::UserRole + 4, Qt::AccessibleTextRole};
const std::vector<int> kStoredRoles{Qt::DisplayRole, Qt::UserRole + 1, Qt::UserRole + 3,
                                    Qt::UserRole + 4};

std::string messagesReply() {
    KXJSON records = KXJSON::array();
    for (int i = 0; i < kMessages; ++i) {
        records.push_back({{"id", "msg-" + std::to_string(100000 + i)},
                           {"subject", "Your stay at the harbour hotel, part " + std::to_string(i)},
                           {"sender", "Harbour Hotel Front Desk"},
                           {"dateReceived", 1763800000000 + i * 60000LL},
                           {"flags", {{"read", i % 3 == 0}}}});
    }
    return KXJSON{{"records", records}, {"hasMoreRecords", false}}.dump();
}

/// A loopback server that answers the inbox's messages request with every message, and any
/// other GET with the inbox summary.
class InboxServer {
public:
    InboxServer() : messages_(messagesReply()) {
        server_.Get(".*", [this](const httplib::Request& request, httplib::Response& response) {
            if (request.path.ends_with("/messages")) {
                response.set_content(messages_, "application/json");
            } else {
                response.set_content(R"({"inboxDomainId":"d1"})", "application/json");
            }
        });
        server_.set_tcp_nodelay(true);
        // The library asks for compressed answers, and httplib would brotli-compress the 1.9 MB
        // reply at its slowest setting; the set-up does not need to wait for that.
        server_.set_pre_routing_handler([](const httplib::Request& request, httplib::Response&) {
            const_cast<httplib::Request&>(request).headers.erase("Accept-Encoding");
            return httplib::Server::HandlerResponse::Unhandled;
        });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) {
            std::this_thread::yield();
        }
    }
    ~InboxServer() {
        server_.stop();
        thread_.join();
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

private:
    std::string messages_;
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};

/// The application, the platform and an inbox screen with every message loaded, made once.
struct Screen {
    Screen() {
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
            qputenv("QT_QPA_PLATFORM", "offscreen");
        }
        static int argc = 1;
        static std::string name = "bench_inbox_screen";
        static std::array<char*, 2> argv{name.data(), nullptr};
        application = std::make_unique<QApplication>(argc, argv.data());
        platform = KXQtPlatform::install("kx.bench.inbox-screen");
        KXServiceEndpoints endpoints;
        for (std::string* url :
             {&endpoints.production, &endpoints.test, &endpoints.staging, &endpoints.localServer,
              &endpoints.development, &endpoints.productionToken, &endpoints.stagingToken}) {
            *url = server.url();
        }
        KXClientFramework::setServiceEndpoints(endpoints);
        KXHTTPSessionManager::sharedManager().configureBaseUrl();
        KXHTTPSessionManager::sharedManager().setBearerToken(
            std::make_shared<KXBearerToken>("bench-token", std::nullopt));
        KXConfig::defaultConfig().setInboxDomainId("d1");
        KXGuest::currentGuest()->setExternalId("g1");
        KXInboxSummary summary;
        summary.setInboxDomainId("d1");
        KXInbox::shared().setSummary(summary);

        inbox = std::make_unique<KXInboxTableViewController>();
        inbox->setInboxDomainId("d1");
        inbox->resize(kWindow);
        inbox->show();
        if (!runUntil([&] { return inbox->model()->rowCount() == kMessages; }, 60000)) {
            std::fprintf(stderr, "the inbox did not load its %d messages\n", kMessages);
            std::abort();
        }
        runUntil([] { return false; }, 100);  // the loading overlay goes away
    }

    InboxServer server;
    std::unique_ptr<QApplication> application;
    std::shared_ptr<KXQtPlatform> platform;
    std::unique_ptr<KXInboxTableViewController> inbox;
};

std::unique_ptr<Screen> shared;

Screen& screen() {
    if (!shared) {
        shared = std::make_unique<Screen>();
    }
    return *shared;
}

/// Reads `roles` (every role when range(0) is 0, the stored ones when 1) of every row.
void readRoles(benchmark::State& state, const QAbstractItemModel& model) {
    const std::vector<int>& roles = state.range(0) == 0 ? kRoles : kStoredRoles;
    const int rows = model.rowCount();
    for (auto _ : state) {
        for (int row = 0; row < rows; ++row) {
            const QModelIndex index = model.index(row, 0);
            for (int role : roles) {
                QVariant value = model.data(index, role);
                benchmark::DoNotOptimize(value);
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * rows * static_cast<std::int64_t>(roles.size()));
}

void ModelDataInbox(benchmark::State& state) {
    readRoles(state, *screen().inbox->model());
}

void ModelDataStandard(benchmark::State& state) {
    const QAbstractItemModel& inbox = *screen().inbox->model();
    QStandardItemModel model(inbox.rowCount(), 1);
    for (int row = 0; row < inbox.rowCount(); ++row) {
        auto* item = new QStandardItem;
        for (int role : kRoles) {
            item->setData(inbox.data(inbox.index(row, 0), role), role);
        }
        model.setItem(row, item);
    }
    readRoles(state, model);
}

void paint(benchmark::State& state, QWidget& widget) {
    QImage image(kWindow, QImage::Format_ARGB32_Premultiplied);
    for (auto _ : state) {
        widget.render(&image);
        benchmark::DoNotOptimize(image.constBits());
    }
}

void PaintInbox(benchmark::State& state) {
    KXInboxTableViewController& inbox = *screen().inbox;
    state.counters["child_widgets"] =
        static_cast<double>(inbox.tableView()->findChildren<QWidget*>().size());
    state.counters["rows"] = inbox.model()->rowCount();
    paint(state, inbox);
    if (const char* path = std::getenv("KX_BENCH_SAVE_FRAME")) {
        inbox.grab().save(path);
    }
}

void PaintStringList(benchmark::State& state) {
    const QAbstractItemModel& inbox = *screen().inbox->model();
    QStringList titles;
    for (int row = 0; row < inbox.rowCount(); ++row) {
        titles << inbox.data(inbox.index(row, 0), Qt::DisplayRole).toString();
    }
    QStringListModel model(titles);
    QListView view;
    view.setModel(&model);
    view.setUniformItemSizes(true);
    view.resize(kWindow);
    view.show();
    runUntil([] { return false; }, 50);
    state.counters["child_widgets"] = static_cast<double>(view.findChildren<QWidget*>().size());
    paint(state, view);
}

}  // namespace

// Argument 0: every role; 1: the stored roles only (no time text).
BENCHMARK(ModelDataInbox)->Name("ModelData/Inbox")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(ModelDataStandard)
    ->Name("ModelData/Standard")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(PaintInbox)->Name("Paint/Inbox")->Unit(benchmark::kMillisecond);
BENCHMARK(PaintStringList)->Name("Paint/StringList")->Unit(benchmark::kMillisecond);

// Its own main: the screen and the application are destroyed before the program exits, since
// widgets destroyed among the static objects at exit would outlive Qt's own.
int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    shared.reset();
    return 0;
}
