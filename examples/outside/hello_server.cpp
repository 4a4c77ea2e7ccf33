// An HTTP server with one route: GET /hello/NAME. Option: --port, 0 for any. SIGINT and SIGTERM end it.

#include "core/io/http/ZnHttpApp.h"
#include "core/runtime/ZnCoreApplication.h"

#include <iostream>

int main(int argc, char** argv) {
    ZnCoreApplication application(argc, argv);
    const int port = application.getArgument("port", "9040").toInt();
    ZnHttpApp app;
    app.get("/hello/:name", [](ZnHttpContext& context) { context.text("Hello, " + context.pathParam("name") + "\n"); });
    if (port < 0 || port > 65535 || !app.tcpServer().listen("127.0.0.1", static_cast<unsigned short>(port))) {
        std::cerr << "hello-server: unable to listen on port " << port << std::endl;
        return 2;
    }
    std::cout << "hello-server: listening on port " << app.tcpServer().localPort() << std::endl;
    return application.exec();
}
