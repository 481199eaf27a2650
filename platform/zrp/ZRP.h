// ZRP: the local named message service. A server creates a listener under a
// service name and receives connection, message and error events on one serial
// delivery queue; a client connects to the name and exchanges framed typed
// dictionaries with it.
//
// The pieces:
//   Value / Dictionary  the typed values that travel in a message.
//   encodeFrame, decodeFrameHeader, decodeFrameBody
//                       the pure wire codec (no sockets), shared by the service,
//                       the client, the tests and the fuzzer.
//   Connection          a listener or an accepted connection on the server side:
//                       event handler, resume, cancel, send, audit token.
//   Event               what a handler receives.
//   createListener      opens a listener for a service name.
//   Client              a blocking client connection (tools and tests).
//
// Behind createListener, internal to the library: DeliveryQueue (the delivery
// thread), ListenerEndpoint and ConnectionEndpoint (the two kinds of
// Connection), TerminationSignal (SIGTERM as an event), SocketIO (sockets).
//
// Thread-safety: values are plain values (copy = deep copy; file descriptors are
// shared between copies and closed by the last one). Connection methods may be
// called from any thread. Every event of every connection of the process is
// delivered on one serial queue (a dedicated thread, never the main thread), in
// arrival order, one at a time: a handler runs to completion before the next
// event is delivered. A Client is for one thread at a time.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "base/UniqueFd.h"

namespace qvl::zrp {

// ---------------------------------------------------------------- values

// The kind of a value; the numbers are the wire tags.
enum class Type : uint8_t {
    Null = 0x00,
    Boolean = 0x01,
    Int64 = 0x02,
    Uint64 = 0x03,
    Double = 0x04,
    Date = 0x05,
    Data = 0x06,
    String = 0x07,
    UUID = 0x08,
    FileDescriptor = 0x09,
    Array = 0x0A,
    Dictionary = 0x0B,
};
const char* typeName(Type type);

class Value;

struct Null {
    friend bool operator==(Null, Null) { return true; }
};
// Nanoseconds since 1970-01-01 00:00:00 UTC.
struct Date {
    int64_t nanoseconds = 0;
    friend bool operator==(Date, Date) = default;
};
using Data = std::vector<uint8_t>;
using UUID = std::array<uint8_t, 16>;
// A descriptor carried by a message. Copies share it; the last copy closes it.
struct FileDescriptor {
    std::shared_ptr<const UniqueFd> fd;
    int get() const { return fd ? fd->get() : -1; }
    friend bool operator==(const FileDescriptor& a, const FileDescriptor& b) { return a.fd == b.fd; }
};
using Array = std::vector<Value>;

// A dictionary keeps the order of its entries: the wire order when decoded,
// insertion order when built. Keys are unique byte strings without NUL.
class Dictionary {
  public:
    struct Entry;

    Dictionary();
    Dictionary(const Dictionary&);
    Dictionary(Dictionary&&) noexcept;
    Dictionary& operator=(const Dictionary&);
    Dictionary& operator=(Dictionary&&) noexcept;
    ~Dictionary();

    size_t size() const;
    bool empty() const { return size() == 0; }
    const Entry& entry(size_t i) const;
    const Value* find(std::string_view key) const;

    // Sets `key`, replacing an existing value in place.
    void set(std::string_view key, Value value);
    void setBool(std::string_view key, bool value);
    void setInt64(std::string_view key, int64_t value);
    void setString(std::string_view key, std::string_view value);
    void setData(std::string_view key, std::span<const uint8_t> bytes);

    // Calls fn(key, value) for every entry in order; stops early when fn returns false.
    void forEach(const std::function<bool(std::string_view key, const Value& value)>& fn) const;

    friend bool operator==(const Dictionary& a, const Dictionary& b);

  private:
    friend class Decoder;
    std::vector<Entry> entries_;
};

class Value {
  public:
    Value() : v_(Null{}) {}
    Value(Null) : v_(Null{}) {}
    Value(bool b) : v_(b) {}
    Value(int n) : v_(int64_t{n}) {}
    Value(int64_t n) : v_(n) {}
    Value(uint64_t n) : v_(n) {}
    Value(double d) : v_(d) {}
    Value(Date d) : v_(d) {}
    Value(Data d) : v_(std::move(d)) {}
    Value(std::string s) : v_(std::move(s)) {}
    Value(const char* s) : v_(std::string(s)) {}
    Value(UUID u) : v_(u) {}
    Value(FileDescriptor f) : v_(std::move(f)) {}
    Value(Array a) : v_(std::move(a)) {}
    Value(Dictionary d) : v_(std::move(d)) {}

    Type type() const;

    // Typed views: null when the value is of another kind.
    const bool* asBool() const { return std::get_if<bool>(&v_); }
    const int64_t* asInt64() const { return std::get_if<int64_t>(&v_); }
    const uint64_t* asUint64() const { return std::get_if<uint64_t>(&v_); }
    const double* asDouble() const { return std::get_if<double>(&v_); }
    const Date* asDate() const { return std::get_if<Date>(&v_); }
    const Data* asData() const { return std::get_if<Data>(&v_); }
    // A string's bytes (UTF-8 is expected but not guaranteed).
    const std::string* asString() const { return std::get_if<std::string>(&v_); }
    const UUID* asUUID() const { return std::get_if<UUID>(&v_); }
    const FileDescriptor* asFileDescriptor() const { return std::get_if<FileDescriptor>(&v_); }
    const Array* asArray() const { return std::get_if<Array>(&v_); }
    const Dictionary* asDictionary() const { return std::get_if<Dictionary>(&v_); }

    friend bool operator==(const Value& a, const Value& b) { return a.v_ == b.v_; }

  private:
    std::variant<Null, bool, int64_t, uint64_t, double, Date, Data, std::string, UUID, FileDescriptor, Array,
                 Dictionary>
        v_;
};

struct Dictionary::Entry {
    std::string key;
    Value value;
    friend bool operator==(const Entry&, const Entry&) = default;
};

// ---------------------------------------------------------------- frames

inline constexpr uint8_t kFrameMagic[4] = {'Z', 'R', 'P', '1'};
inline constexpr size_t kFrameHeaderSize = 8;
inline constexpr uint32_t kMaxBodyLength = 16u << 20;
inline constexpr size_t kMaxDescriptors = 16;
inline constexpr int kMaxDepth = 64;

// An encoded frame: header + body, and the descriptors to pass with its first
// byte (borrowed from the message; they stay open while the message lives).
struct EncodedFrame {
    std::vector<uint8_t> bytes;
    std::vector<int> descriptors;
};

// Encodes `message` as one frame. Fails (nullopt, reason in *error) when the
// body would exceed kMaxBodyLength, it holds more than kMaxDescriptors
// descriptors, a string or key holds a NUL byte, or nesting exceeds kMaxDepth.
std::optional<EncodedFrame> encodeFrame(const Dictionary& message, std::string* error = nullptr);

// Checks the 8-byte header; answers the body length, or nullopt for a wrong
// magic or a length above kMaxBodyLength.
std::optional<uint32_t> decodeFrameHeader(std::span<const uint8_t> header);

// Decodes a frame body. `descriptors` are the ones that came with the frame;
// the decoded message takes ownership of those it references and the rest are
// closed. Fails (nullopt, reason in *error) on anything malformed: the body is
// not one dictionary, a duplicate key, an unknown tag, a length or count past
// the end, nesting deeper than kMaxDepth, a descriptor index without a
// descriptor, a boolean byte other than 0 or 1, a NUL inside a string or key,
// trailing bytes, more than 2^20 values in all.
std::optional<Dictionary> decodeFrameBody(std::span<const uint8_t> body, std::vector<UniqueFd> descriptors,
                                          std::string* error = nullptr);

// ---------------------------------------------------------------- server side

// Who is on the other end, taken once when the connection was accepted.
struct AuditToken {
    pid_t pid = -1;
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    // The peer's executable, read from /proc while its pidfd showed it alive;
    // empty when it could not be read.
    std::string executablePath;
    // Pins the peer process; shared by copies of the token.
    std::shared_ptr<const UniqueFd> pidfd;

    // True while the process the token was taken from still runs (never true
    // for a pid that has since been reused).
    bool processAlive() const;
};

class Connection;

// One delivered event.
class Event {
  public:
    enum class Kind { Connection, Message, Error };
    enum class Error { None, ConnectionInvalid, TerminationImminent, Other };

    static Event newConnection(std::shared_ptr<Connection> c);
    static Event message(Dictionary d);
    static Event error(Error e, std::string description = {});

    Kind kind() const { return kind_; }
    // Kind::Connection: the accepted connection (not yet resumed).
    const std::shared_ptr<Connection>& connection() const { return connection_; }
    // Kind::Message: the dictionary.
    const Dictionary& dictionary() const { return dictionary_; }
    // Kind::Error: which error, and for Error::Other its description (strerror text).
    Error errorKind() const { return error_; }
    const std::string& description() const { return description_; }

  private:
    Kind kind_ = Kind::Error;
    std::shared_ptr<Connection> connection_;
    Dictionary dictionary_;
    Error error_ = Error::None;
    std::string description_;
};

// A listener or a connection accepted by one. Nothing is delivered until the
// first resume(). A connection's handler receives Message events and then,
// once, ConnectionInvalid when the peer goes away or sends an invalid frame.
// The listener's handler receives Connection events, TerminationImminent on
// SIGTERM, and Other errors when accepting fails.
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    using EventHandler = std::function<void(const Event&)>;

    virtual ~Connection() = default;

    virtual void setEventHandler(EventHandler handler) = 0;
    virtual void resume() = 0;
    // Closes the connection (or stops listening). No event follows a cancel.
    virtual void cancel() = 0;
    // Sends one message. A message that can't be encoded, or a send to a
    // connection that is gone, is dropped quietly.
    virtual void send(const Dictionary& message) = 0;
    // The peer of an accepted connection; an empty token for a listener.
    // Taken once at accept, it stays the same for the connection's life.
    virtual const AuditToken& auditToken() const = 0;
    virtual bool isListener() const = 0;
};

inline constexpr const char* kDefaultSocketDirectory = "/var/run/zrp";

// Opens the listener for `serviceName`: a socket at SOCKETDIR/NAME (the folder
// made 0755 when missing, a stale socket replaced, the socket made 0666), or
// descriptor 3 when started by socket activation (LISTEN_PID is this process
// and LISTEN_FDS is 1). Answers null, with the reason in *error, on failure.
// Also routes SIGTERM to the resumed listeners as TerminationImminent (with
// none left to hear it, SIGTERM ends the process as it would by default).
std::shared_ptr<Connection> createListener(std::string_view serviceName, std::string* error = nullptr,
                                           std::string_view socketDirectory = kDefaultSocketDirectory);

// Parks the calling thread (the main thread) for ever; all work happens on
// the delivery queue.
[[noreturn]] void runMainLoop();

// Busy transactions: a count the service keeps while work is open that must
// not be cut short by an idle exit. Nothing here ever closes one. The count
// is also published, as decimal text and a newline, in the file
// SOCKETDIR/NAME.transactions of a listener bound by createListener (written
// afresh with 0 when it is made, and at every opening), so that a test or an
// administrator outside the process can see it.
inline constexpr const char* kTransactionsFileSuffix = ".transactions";
void openTransaction();
uint64_t openTransactionCount();

// ---------------------------------------------------------------- client side

// A blocking client connection to a named service.
class Client {
  public:
    enum class Status { Message, Timeout, Closed, Invalid };
    struct Received {
        Status status = Status::Closed;
        Dictionary message;  // for Status::Message
    };

    // Connects to SOCKETDIR/NAME; null with the reason in *error on failure.
    static std::unique_ptr<Client> connect(std::string_view serviceName, std::string* error = nullptr,
                                           std::string_view socketDirectory = kDefaultSocketDirectory);

    // Sends one message; false with the reason in *error when it could not be sent.
    bool send(const Dictionary& message, std::string* error = nullptr);
    // Waits up to `timeout` for the next message.
    Received receive(std::chrono::milliseconds timeout);
    // Sends raw bytes (tests use it to send malformed frames).
    bool sendRaw(std::span<const uint8_t> bytes);
    int fd() const { return fd_.get(); }

  private:
    explicit Client(UniqueFd fd) : fd_(std::move(fd)) {}
    // Sets how long a read waits, when it differs from the last one set.
    bool setReceiveTimeout(std::chrono::milliseconds timeout);

    UniqueFd fd_;
    std::chrono::milliseconds receiveTimeout_{0};  // 0: not set, reads wait for ever
    std::vector<uint8_t> buffer_;
    std::vector<uint8_t> chunk_;  // what one read receives into
    std::vector<UniqueFd> pendingDescriptors_;
};

}  // namespace qvl::zrp
