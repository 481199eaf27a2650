// The helper's process entry: turns on file logging, listens under
// "com.ostrel.quorvaledhelper" and hands every request, on the thread that
// delivered it, to the shared QVLHMessageResponder. The main thread only
// parks in the event loop.
//
// Exit statuses: 0 when the listener reports termination (SIGTERM) or that it
// is invalid; 1 when it can't be created or reports any other error. Every
// end goes through platform::exitProcess, as "quitHelper:" does.

#include <cassert>
#include <memory>
#include <mutex>

#include "base/QVLLog.h"
#include "base/QVLLogModel.h"
#include "base/QVLProgressUpdater.h"
#include "platform/reboot/ProcessExit.h"
#include "platform/zrp/ZRP.h"
#include "qvald_helper/QVLHMessageResponder.h"

using qvl::QVLHMessageResponder;
namespace zrp = qvl::zrp;

void QVLH_start_listener();
void QVLH_handle_connection(const std::shared_ptr<zrp::Connection>& connection);

namespace {

constexpr const char* kServiceName = "com.ostrel.quorvaledhelper";

// The one listener of the process; empty until QVLH_start_listener has run.
std::mutex gListenerLock;
std::shared_ptr<zrp::Connection> gListener;

void handleListenerEvent(const zrp::Event& event) {
    if (event.kind() == zrp::Event::Kind::Connection) {
        QVLLog("It's an ZRP_TYPE_CONNECTION");
        QVLLog("Start to deal with new connection");
        QVLH_handle_connection(event.connection());
        return;
    }
    switch (event.errorKind()) {
        case zrp::Event::Error::TerminationImminent:
            QVLLog("ZRP connection will be closed");
            qvl::platform::exitProcess(0);
        case zrp::Event::Error::ConnectionInvalid:
            QVLLog("No ZRP connection, exiting");
            qvl::platform::exitProcess(0);
        default: {
            QVLLog("Got ZRP error on listener connection: %s", event.description());
            std::shared_ptr<zrp::Connection> listener;
            {
                std::lock_guard<std::mutex> guard(gListenerLock);
                listener = gListener;
            }
            if (listener) listener->cancel();
            qvl::platform::exitProcess(1);
        }
    }
}

void handleConnectionEvent(const std::shared_ptr<zrp::Connection>& connection, const zrp::Event& event) {
    if (event.kind() == zrp::Event::Kind::Error) {
        // The helper never cancels a connection itself and never exits here.
        if (event.errorKind() == zrp::Event::Error::ConnectionInvalid) {
            QVLLog("ZRP disconnected by client");
            QVLHMessageResponder::sharedInstance().setConnection(nullptr);
        } else if (event.errorKind() == zrp::Event::Error::TerminationImminent) {
            QVLLog("ZRP connection will be closed");
        }
        return;
    }
    QVLLog("Received an ZRP request?");
    // The service delivers only dictionaries and errors on a connection.
    assert(event.kind() == zrp::Event::Kind::Message && "type == ZRP_TYPE_DICTIONARY");
    if (event.kind() != zrp::Event::Kind::Message) return;
    QVLLog("QVLH: Received a ZRP request");
    auto& responder = QVLHMessageResponder::sharedInstance();
    responder.setConnection(connection);
    responder.handleZRPMessage(event.dictionary());
    QVLLog("Message handled");
}

}  // namespace

void QVLH_start_listener() {
    std::lock_guard<std::mutex> guard(gListenerLock);
    if (gListener) return;
    std::string error;
    auto listener = zrp::createListener(kServiceName, &error);
    if (!listener) {
        QVLLog("Could not create ZRP listener.");
        qvl::platform::exitProcess(1);
    }
    gListener = listener;
    listener->setEventHandler(handleListenerEvent);
    listener->resume();
}

void QVLH_handle_connection(const std::shared_ptr<zrp::Connection>& connection) {
    // The handler keeps its connection alive for as long as the service keeps
    // the handler, that is until the connection closes.
    connection->setEventHandler(
        [connection](const zrp::Event& event) { handleConnectionEvent(connection, event); });
    connection->resume();
}

int main(int argc, char** argv) {
    QVLLog("%s started", argc > 0 ? argv[0] : "qvald_helper");
    // Without file logging the helper still runs; lines go to the system log.
    qvl::QVLLogModel::sharedInstance().enableLogToFilesUnder_skipFinishDemoRestore("/private/var/logs/qvald",
                                                                                   "qvald_helper", 5);
    // Progress of a long command goes to the client that asked for it.
    qvl::QVLProgressUpdater::sharedInstance().setProgressSender(
        [](int64_t percent) { QVLHMessageResponder::sharedInstance().sendProgress(percent); });
    QVLH_start_listener();
    zrp::runMainLoop();
    return 0;
}
