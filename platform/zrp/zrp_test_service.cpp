// A small ZRP service for tests and benchmarks of the service library and of
// its clients. Each key of a request is a command:
//   "fail:"      answers {"Response": false}
//   "progress:"  sends {"Progress": 0}, {"Progress": 50}, {"Progress": 100}, then {"Response": true}
//   "echo:"      sends {"Echo": <the whole request>}, then {"Response": true}
//   "silent:"    answers nothing
//   "hangup:"    closes the connection
//   anything else answers {"Response": true}
// SIGTERM prints "termination imminent" and exits with status 0. Any other
// listener error prints "listener error: DESCRIPTION" (the first time) and
// exits with status 1, or, with --keep-going yes, goes on listening.
//
// usage: zrp_test_service [--socket-dir DIR] [--name NAME] [--keep-going yes]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/zrp/ZRP.h"

namespace {

using qvl::zrp::Connection;
using qvl::zrp::Dictionary;
using qvl::zrp::Event;
using qvl::zrp::Value;

void sendResponse(Connection& c, bool ok) {
    Dictionary reply;
    reply.setBool("Response", ok);
    c.send(reply);
}

void handleRequest(Connection& c, const Dictionary& request) {
    for (size_t i = 0; i < request.size(); ++i) {
        const std::string& key = request.entry(i).key;
        if (key == "fail:") {
            sendResponse(c, false);
        } else if (key == "progress:") {
            for (int64_t p : {0, 50, 100}) {
                Dictionary progress;
                progress.setInt64("Progress", p);
                c.send(progress);
            }
            sendResponse(c, true);
        } else if (key == "echo:") {
            Dictionary echo;
            echo.set("Echo", Value(request));
            c.send(echo);
            sendResponse(c, true);
        } else if (key == "silent:") {
        } else if (key == "hangup:") {
            c.cancel();
            return;
        } else {
            sendResponse(c, true);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string dir = qvl::zrp::kDefaultSocketDirectory;
    std::string name = "com.ostrel.zrptest";
    static bool keepGoing = false;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--socket-dir") == 0) dir = argv[i + 1];
        if (std::strcmp(argv[i], "--name") == 0) name = argv[i + 1];
        if (std::strcmp(argv[i], "--keep-going") == 0) keepGoing = std::strcmp(argv[i + 1], "yes") == 0;
    }
    std::string error;
    std::shared_ptr<Connection> listener = qvl::zrp::createListener(name, &error, dir);
    if (!listener) {
        std::fprintf(stderr, "zrp_test_service: %s\n", error.c_str());
        return 1;
    }
    listener->setEventHandler([](const Event& event) {
        if (event.kind() == Event::Kind::Connection) {
            std::shared_ptr<Connection> c = event.connection();
            c->setEventHandler([c](const Event& e) {
                if (e.kind() == Event::Kind::Message) handleRequest(*c, e.dictionary());
            });
            c->resume();
            return;
        }
        if (event.errorKind() == Event::Error::TerminationImminent) {
            std::printf("termination imminent\n");
            std::fflush(stdout);
            std::exit(0);
        }
        // Only the first error is printed, so that a listener that keeps
        // failing burns CPU rather than blocking on a full pipe.
        static bool printed = false;
        if (!printed) {
            std::printf("listener error: %s\n", event.description().c_str());
            std::fflush(stdout);
            printed = true;
        }
        if (!keepGoing) std::exit(1);
    });
    listener->resume();
    std::printf("ready\n");
    std::fflush(stdout);
    qvl::zrp::runMainLoop();
}
