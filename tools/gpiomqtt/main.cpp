// gpiomqtt: the board's GPIO on a facility's MQTT broker as NMOS IS-07 events. The daemon's GPI
// events become retained boolean states, followed states become GPO requests. The GPI path is
// this thread's poll loop; the broker is served by libmosquitto's own thread, so a broker that is
// slow or gone never holds a datagram up.
#include "cli.h"
#include "ids.h"
#include "is07.h"
#include "lines.h"
#include "options.h"
#include "toolkit.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mosquitto.h>
#include <mutex>
#include <poll.h>
#include <set>
#include <stdexcept>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unique_fd.h>
#include <unistd.h>

namespace gpiomqtt {

namespace {

constexpr int kKeepAliveSeconds = 10;
// Reconnection: 1 s after a loss, then every 2 s, so that the board's states are back within
// seconds of the broker's return while a broker away for hours costs one SYN every 2 s.
constexpr unsigned kReconnectFirst = 1, kReconnectLongest = 2;
constexpr auto kFarewellWait = std::chrono::seconds(2);

__attribute__((format(printf, 1, 2))) void note(const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    fprintf(stderr, "gpiomqtt: %s\n", text);
}

int udp_socket() {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        throw std::runtime_error(std::string("socket: ") + strerror(errno));
    return fd;
}

// Counts of one family of causes; the first of each cause is told at once, all of them at exit.
template <size_t N> class CauseCounts {
  public:
    CauseCounts(const char* family, const char* (*text)(size_t)) : family_(family), text_(text) {}
    void count(size_t cause) {
        if (cause < N && counts_[cause]++ == 0)
            note("%s: %s (told once; the count is told at exit)", family_, text_(cause));
    }
    void set(size_t cause, uint64_t total) {
        if (cause < N && counts_[cause] == 0 && total > 0)
            note("%s: %s (told once; the count is told at exit)", family_, text_(cause));
        if (cause < N)
            counts_[cause] = total;
    }
    void report() const {
        for (size_t cause = 0; cause < N; ++cause)
            if (counts_[cause] > 0)
                note("%s: %llu of %s", family_, static_cast<unsigned long long>(counts_[cause]),
                     text_(cause));
    }

  private:
    const char* family_;
    const char* (*text_)(size_t);
    std::array<uint64_t, N> counts_{};
};

constexpr size_t kRefusals = static_cast<size_t>(Refusal::Count);
constexpr size_t kUnpublished = static_cast<size_t>(Unpublished::Count);

class Gateway {
  public:
    explicit Gateway(const Options& options)
        : options_(options), ids_(board_ids(options.identity)), gpi_(udp_socket()),
          gpo_(udp_socket()), forward_(udp_socket()) {}
    ~Gateway() {
        if (client_) {
            mosquitto_loop_stop(client_.get(), true);
            client_.reset();
        }
        mosquitto_lib_cleanup();
    }
    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;

    void start();
    // Serves GPI datagrams until SIGTERM or SIGINT arrives on `signals`.
    void run(int signals);
    // Says goodbye to the broker: shutdown on every source, the connection no longer active.
    void stop();

  private:
    void open_client();
    // Tries to reach the broker; whether the attempt is under way (the client's thread then
    // takes it from there, reconnections included).
    bool try_connect();
    void receive_datagrams();
    void publish(const std::string& topic, const std::string& payload, bool retain);
    void publish_line(int line, bool value);
    void publish_everything();
    void go_live();
    void on_connect(int code);
    void on_disconnect(int code);
    void on_message(const mosquitto_message& message);
    void on_publish(int mid);

    const Options& options_;
    const BoardIds ids_;
    UniqueFd gpi_, gpo_, forward_;
    std::unique_ptr<mosquitto, void (*)(mosquitto*)> client_{nullptr, mosquitto_destroy};

    std::mutex mutex_; // guards everything below; held across a state's update and publication
    GpiLines lines_;
    // The link to the broker is up; connected_ once no message from before a loss is pending.
    bool linkUp_ = false, connected_ = false;
    bool stopping_ = false;
    // Messages handed to the client and not acknowledged yet. After a lost connection the client
    // sends its QoS 1 and 2 ones again, but only after whatever the connect callback published:
    // an old state would land on the broker after the current one and stay retained. So the
    // current states go out once every old message is through.
    std::set<int> unacknowledged_;
    bool attempting_ = false;  // a first connection is under way (main thread only)
    unsigned failedAttempts_ = 0;
    std::condition_variable delivered_;
    CauseCounts<kRefusals> refusals_{"followed state changed nothing", [](size_t cause) {
                                         return refusal_text(static_cast<Refusal>(cause));
                                     }};
    CauseCounts<kUnpublished> unpublished_{"GPI event not published", [](size_t cause) {
                                               return unpublished_text(
                                                   static_cast<Unpublished>(cause));
                                           }};
};

void Gateway::start() {
    const sockaddr_in address = loopback_address(LOOP_GPI_PORT);
    if (bind(gpi_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error(
            std::string("127.0.0.1:42000: ") + strerror(errno) +
            (errno == EADDRINUSE ? " (a program receives there: run it behind --forward)" : ""));
    open_client();
}

void Gateway::open_client() {
    mosquitto_lib_init();
    const std::string client_id = "gpiomqtt-" + ids_.connection;
    client_.reset(mosquitto_new(client_id.c_str(), true, this));
    if (!client_)
        throw std::runtime_error("mosquitto_new: " + std::string(strerror(errno)));
    mosquitto* client = client_.get();
    const std::string will = connection_status(false);
    int rc = mosquitto_will_set(client, connection_topic(ids_.connection).c_str(),
                                static_cast<int>(will.size()), will.data(), options_.qos, true);
    if (rc == MOSQ_ERR_SUCCESS && options_.credentials)
        rc = mosquitto_username_pw_set(client, options_.username.c_str(),
                                       options_.password.c_str());
    if (rc == MOSQ_ERR_SUCCESS && !options_.cafile.empty())
        rc = mosquitto_tls_set(client, options_.cafile.c_str(), nullptr, nullptr, nullptr, nullptr);
    if (rc != MOSQ_ERR_SUCCESS)
        throw std::runtime_error(std::string("MQTT client: ") + mosquitto_strerror(rc));
    mosquitto_reconnect_delay_set(client, kReconnectFirst, kReconnectLongest, false);
    mosquitto_connect_callback_set(client, [](mosquitto*, void* self, int code) {
        static_cast<Gateway*>(self)->on_connect(code);
    });
    mosquitto_disconnect_callback_set(client, [](mosquitto*, void* self, int code) {
        static_cast<Gateway*>(self)->on_disconnect(code);
    });
    mosquitto_message_callback_set(client, [](mosquitto*, void* self, const mosquitto_message* m) {
        static_cast<Gateway*>(self)->on_message(*m);
    });
    mosquitto_publish_callback_set(client, [](mosquitto*, void* self, int mid) {
        static_cast<Gateway*>(self)->on_publish(mid);
    });
    rc = mosquitto_loop_start(client);
    if (rc != MOSQ_ERR_SUCCESS)
        throw std::runtime_error(std::string("MQTT client thread: ") + mosquitto_strerror(rc));
    try_connect();
}

// The client's thread reconnects after a loss, but a first attempt that fails at once (the
// broker's host refusing before the call returns) leaves it waiting for a first connection that
// never comes: such attempts are made again from the poll loop, with the same back-off, until one
// is under way; only then does the client's thread take over.
bool Gateway::try_connect() {
    const std::string host = cli::dotted(options_.broker.address);
    const int rc =
        failedAttempts_ == 0
            ? mosquitto_connect_async(client_.get(), host.c_str(), options_.broker.port,
                                      kKeepAliveSeconds)
            : mosquitto_reconnect_async(client_.get());
    attempting_ = rc == MOSQ_ERR_SUCCESS;
    if (!attempting_ && failedAttempts_++ == 0)
        note("broker %s:%u: %s; trying again", host.c_str(), options_.broker.port,
             rc == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(rc));
    return attempting_;
}

void Gateway::run(int signals) {
    pollfd watched[2] = {{gpi_.get(), POLLIN, 0}, {signals, POLLIN, 0}};
    for (;;) {
        const unsigned retry = std::min(kReconnectFirst * failedAttempts_, kReconnectLongest);
        const int ready = poll(watched, 2, attempting_ ? -1 : static_cast<int>(retry * 1000));
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            throw std::runtime_error(std::string("poll: ") + strerror(errno));
        }
        if (ready == 0) {
            try_connect();
            continue;
        }
        if (watched[0].revents & POLLIN)
            receive_datagrams();
        if (watched[1].revents & POLLIN)
            return;
    }
}

void Gateway::receive_datagrams() {
    const sockaddr_in onward = loopback_address(options_.forward);
    uint8_t datagram[1500];
    for (;;) {
        const ssize_t got = recv(gpi_.get(), datagram, sizeof datagram, MSG_DONTWAIT | MSG_TRUNC);
        if (got < 0)
            return;
        const size_t size = std::min(static_cast<size_t>(got), sizeof datagram);
        const TaiTime received = tai_now();
        if (options_.forward != 0)
            sendto(forward_.get(), datagram, size, 0, reinterpret_cast<const sockaddr*>(&onward),
                   sizeof onward);
        std::lock_guard lock(mutex_);
        // A datagram cut to the buffer is longer than 8 bytes all the same.
        const Publication publication = lines_.take(std::span(datagram, size), received);
        for (size_t cause = 0; cause < kUnpublished; ++cause)
            unpublished_.set(cause, lines_.unpublished(static_cast<Unpublished>(cause)));
        for (int i = 0; i < publication.count; ++i)
            publish_line(publication.line, publication.values[static_cast<size_t>(i)]);
    }
}

// Called with the mutex held. Nothing is queued while the broker is away: every state goes out
// again, current, on the next connection.
void Gateway::publish(const std::string& topic, const std::string& payload, bool retain) {
    if (!connected_)
        return;
    int mid = 0;
    const int rc = mosquitto_publish(client_.get(), &mid, topic.c_str(),
                                     static_cast<int>(payload.size()), payload.data(),
                                     options_.qos, retain);
    if (rc == MOSQ_ERR_SUCCESS)
        unacknowledged_.insert(mid);
    if (options_.verbose)
        note("publish %s %s%s%s", topic.c_str(), payload.empty() ? "(empty)" : payload.c_str(),
             retain ? " retained" : "", rc == MOSQ_ERR_SUCCESS ? "" : " failed");
}

void Gateway::publish_line(int line, bool value) {
    const auto at = static_cast<size_t>(line);
    publish(source_topic(ids_.source[at]),
            state_message({ids_.source[at], ids_.flow[at]}, value, lines_.line(line).origin,
                          tai_now()),
            true);
}

// The connection's status and every line's state; a line not known yet clears any state a
// previous run left, since the line may no longer have it.
void Gateway::publish_everything() {
    publish(connection_topic(ids_.connection), connection_status(true), true);
    for (int line = 0; line < kLines; ++line) {
        if (lines_.line(line).known)
            publish_line(line, lines_.line(line).level);
        else
            publish(source_topic(ids_.source[static_cast<size_t>(line)]), "", true);
    }
}

void Gateway::on_connect(int code) {
    if (code != 0) {
        note("broker refused the connection: %s", mosquitto_connack_string(code));
        return;
    }
    note("connected to %s:%u", cli::dotted(options_.broker.address).c_str(), options_.broker.port);
    std::lock_guard lock(mutex_);
    if (stopping_)
        return;
    linkUp_ = true;
    for (const Followed& followed : options_.gpo)
        mosquitto_subscribe(client_.get(), nullptr, followed.topic.c_str(), options_.qos);
    if (unacknowledged_.empty())
        go_live();
    else if (options_.verbose)
        note("%zu messages from before the loss go first", unacknowledged_.size());
}

// Called with the mutex held, once the link is up and nothing older is pending.
void Gateway::go_live() {
    connected_ = true;
    publish_everything();
}

void Gateway::on_disconnect(int code) {
    std::lock_guard lock(mutex_);
    linkUp_ = connected_ = false;
    if (options_.qos == 0)
        unacknowledged_.clear(); // never sent again
    if (!stopping_)
        note("lost the broker (%s); reconnecting", code == 0 ? "disconnected"
                                                              : mosquitto_strerror(code));
}

void Gateway::on_message(const mosquitto_message& message) {
    const auto* bytes = static_cast<const uint8_t*>(message.payload);
    const FollowedState state =
        read_state(std::span(bytes, message.payloadlen > 0 ? static_cast<size_t>(message.payloadlen) : 0));
    bool followed = false;
    for (const Followed& entry : options_.gpo) {
        if (entry.topic != message.topic)
            continue;
        followed = true;
        if (state.refusal != Refusal::None)
            continue;
        const GpioDatagram request = gpioEncode({entry.line, state.value ? 1 : 0});
        const sockaddr_in daemon = loopback_address(LOOP_GPO_PORT);
        if (sendto(gpo_.get(), request.data(), request.size(), 0,
                   reinterpret_cast<const sockaddr*>(&daemon), sizeof daemon) < 0)
            note("GPO request to 127.0.0.1:42001: %s", strerror(errno));
        else if (options_.verbose)
            note("GPO %d <- %d from %s", entry.line, state.value ? 1 : 0, message.topic);
    }
    const Refusal refusal = followed ? state.refusal : Refusal::OtherTopic;
    if (refusal != Refusal::None) {
        std::lock_guard lock(mutex_);
        refusals_.count(static_cast<size_t>(refusal));
    }
}

void Gateway::on_publish(int mid) {
    std::lock_guard lock(mutex_);
    unacknowledged_.erase(mid);
    delivered_.notify_all();
    if (linkUp_ && !connected_ && !stopping_ && unacknowledged_.empty())
        go_live();
}

void Gateway::stop() {
    std::unique_lock lock(mutex_);
    const TaiTime now = tai_now();
    for (int line = 0; line < kLines; ++line) {
        const auto at = static_cast<size_t>(line);
        publish(source_topic(ids_.source[at]), shutdown_message({ids_.source[at], ids_.flow[at]}, now),
                false);
    }
    publish(connection_topic(ids_.connection), connection_status(false), true);
    stopping_ = true;
    if (connected_)
        delivered_.wait_for(lock, kFarewellWait, [&] { return unacknowledged_.empty(); });
    lock.unlock();
    mosquitto_disconnect(client_.get());
    mosquitto_loop_stop(client_.get(), false);
    refusals_.report();
    unpublished_.report();
}

void print_ids(const Options& options) {
    const BoardIds ids = board_ids(options.identity);
    printf("connection %s %s\n", ids.connection.c_str(), connection_topic(ids.connection).c_str());
    for (size_t line = 0; line < kLines; ++line)
        printf("gpi %zu source %s flow %s %s\n", line, ids.source[line].c_str(),
               ids.flow[line].c_str(), source_topic(ids.source[line]).c_str());
}

int run(int argc, char** argv) {
    const Options options = parse_options(argc, argv);
    if (options.help) {
        fputs(kUsage, stdout);
        printf("TLS: %s\n", kHaveTls ? "in this build (--cafile)" : "not in this build");
        return 0;
    }
    if (options.print_ids) {
        print_ids(options);
        return 0;
    }
    // The signals wait in a descriptor beside the GPI socket; blocked before the client's thread
    // starts, so that it inherits the mask and never takes them.
    sigset_t stopping;
    sigemptyset(&stopping);
    sigaddset(&stopping, SIGTERM);
    sigaddset(&stopping, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopping, nullptr);
    signal(SIGPIPE, SIG_IGN);
    const UniqueFd signals(signalfd(-1, &stopping, SFD_CLOEXEC));
    if (signals.get() < 0)
        throw std::runtime_error(std::string("signalfd: ") + strerror(errno));
    Gateway gateway(options);
    gateway.start();
    if (options.verbose)
        note("identity %s, connection %s", options.identity.c_str(),
             board_ids(options.identity).connection.c_str());
    gateway.run(signals.get());
    gateway.stop();
    return 0;
}

} // namespace

} // namespace gpiomqtt

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return cli::run("gpiomqtt", [&] { return gpiomqtt::run(argc, argv); });
}
