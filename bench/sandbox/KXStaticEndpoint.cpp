// The baseline of the sandbox's load figure: cpp-httplib answering every GET with the same
// bytes from memory, configured as kxsandbox configures it (thread pool, keep-alive,
// TCP_NODELAY), so the difference to kxsandbox is what the sandbox does per request (token check,
// routing, SQLite, JSON).
//
//     kx_static_endpoint PORT BODY_FILE
#include <httplib.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: kx_static_endpoint PORT BODY_FILE\n");
        return 2;
    }
    std::ifstream in(argv[2], std::ios::binary);
    const std::string body((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    httplib::Server server;
    server.new_task_queue = [] { return new httplib::ThreadPool(64); };
    server.set_keep_alive_max_count(100000);
    server.set_tcp_nodelay(true);
    server.Get(".*", [&body](const httplib::Request&, httplib::Response& response) {
        response.set_content(body, "application/json");
    });
    std::printf("listening on %s\n", argv[1]);
    std::fflush(stdout);
    return server.listen("127.0.0.1", std::atoi(argv[1])) ? 0 : 1;
}
