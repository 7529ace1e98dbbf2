// The rack's page, JSON API and event stream over HTTP (cpp-httplib).
#include "web.h"

#include "cli.h"
#include "values.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <httplib.h>
#include <stdexcept>
#include <unistd.h>
#include <vector>

namespace rack {

namespace {

// Each event stream holds one of the server's threads for as long as its page stays, so the pool
// has one for each page it serves at once and a few more for everything else: the page's files
// and the API stay quick however many pages are open. A page past that many is refused.
constexpr size_t kStreams = 64, kWorkers = 8;
// A comment line keeps a quiet stream alive, and a write to a page that went away fails: its
// thread is free again within two of these.
constexpr auto kQuietStream = std::chrono::seconds(2);

void reply(httplib::Response& res, int status, const std::string& json) {
    res.status = status;
    res.set_content(json + "\n", "application/json");
}

std::string error_json(const std::string& message) {
    return "{\"error\":" + json_string(message) + "}";
}

// Requests come from this page or from a program on this machine: the page was reached by an
// address (not a name a foreign site could point here), and a browser's Origin is the page's own.
bool own_request(const httplib::Request& req) {
    const std::string host = req.get_header_value("Host");
    const std::string name = host.substr(0, host.rfind(':'));
    in_addr address{};
    if (name != "localhost" && inet_pton(AF_INET, name.c_str(), &address) != 1)
        return false;
    return !req.has_header("Origin") || req.get_header_value("Origin") == "http://" + host;
}

} // namespace

Web::Web(Rack& rack, const std::string& address, uint16_t port, const std::string& page)
    : rack_(rack), server_(std::make_unique<httplib::Server>()) {
    httplib::Server& server = *server_;
    server.set_default_headers(
        {{"Cache-Control", "no-store"},
         {"X-Content-Type-Options", "nosniff"},
         {"Content-Security-Policy", "default-src 'self'; img-src 'self' data:"}});
    server.set_keep_alive_timeout(2);
    server.set_pre_routing_handler([](const httplib::Request& req, httplib::Response& res) {
        if (own_request(req))
            return httplib::Server::HandlerResponse::Unhandled;
        reply(res, 403, error_json("not this page's request (Host or Origin)"));
        return httplib::Server::HandlerResponse::Handled;
    });
    if (!server.set_mount_point("/", page))
        throw std::runtime_error(page + ": not a folder of page files");

    server.Get("/api/state", [this](const httplib::Request&, httplib::Response& res) {
        reply(res, 200, rack_.state_json());
    });
    server.Get("/api/log", [this](const httplib::Request& req, httplib::Response& res) {
        try {
            const std::string after = req.get_param_value("after");
            reply(res, 200,
                  rack_.log_json(after.empty() ? 0 : cli::integer(after, 0, INT64_MAX, "after")));
        } catch (const cli::Refused& refused) {
            reply(res, 400, error_json(refused.what()));
        }
    });
    server.new_task_queue = [] { return new httplib::ThreadPool(kStreams + kWorkers); };
    server.Get("/api/events", [this](const httplib::Request&, httplib::Response& res) {
        if (streams_.fetch_add(1) >= kStreams) {
            --streams_;
            reply(res, 503, error_json(std::to_string(kStreams) + " pages are open already"));
            return;
        }
        // The page's place in the stream, and room for what it sends next: made once, so that
        // a stream allocates nothing while it runs.
        auto reader = std::make_shared<std::pair<Cursor, std::vector<Rack::Event>>>();
        reader->second.reserve(Rack::kLogLength + 1);
        res.set_chunked_content_provider(
            "text/event-stream",
            [this, reader](size_t, httplib::DataSink& sink) {
                auto& [cursor, events] = *reader;
                rack_.next_events(cursor, kQuietStream, events);
                if (rack_.stopped())
                    return false;
                if (events.empty())
                    return sink.write(": quiet\n\n", 9);
                for (const Rack::Event& event : events)
                    if (!sink.write(event->data(), event->size()))
                        return false;
                return true;
            },
            [this](bool) { --streams_; });
    });

    // Each action answers with the state it leaves, or with an error and its status.
    using Action = std::function<void(const httplib::Request&)>;
    auto post = [&](const char* path, Action act) {
        server.Post(path, [this, act](const httplib::Request& req, httplib::Response& res) {
            try {
                act(req);
                reply(res, 200, rack_.state_json());
            } catch (const Refusal& refusal) {
                reply(res, refusal.status, error_json(refusal.what()));
            } catch (const cli::Refused& refused) {
                reply(res, 400, error_json(refused.what()));
            }
        });
    };
    post("/api/gpi", [this](const httplib::Request& req) {
        if (req.has_param("levels"))
            rack_.gpi_levels(req.get_param_value("levels"));
        else
            rack_.gpi(req.get_param_value("line"), req.get_param_value("action"));
    });
    post("/api/local",
         [this](const httplib::Request& req) { rack_.local(req.get_param_value("local")); });
    post("/api/load",
         [this](const httplib::Request& req) { rack_.load(req.get_param_value("clip")); });
    post("/api/fault", [this](const httplib::Request& req) {
        const std::string kind = req.get_param_value("kind");
        rack_.fault(kind, req.get_param_value(Rack::fault_field(kind)));
    });

    errno = 0;
    const bool bound = port == 0
                           ? (port = static_cast<uint16_t>(server.bind_to_any_port(address))) != 0
                           : server.bind_to_port(address, port);
    if (!bound)
        throw std::runtime_error("http " + address + ":" + std::to_string(port) + ": " +
                                 (errno ? strerror(errno) : "cannot listen"));
    port_ = port;
    thread_ = std::thread([this] { server_->listen_after_bind(); });
}

Web::~Web() {
    rack_.close();
    server_->stop();
    thread_.join();
}

std::string page_folder() {
    std::error_code error;
    std::vector<std::filesystem::path> folders;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error)
        folders.push_back(program.parent_path() / RACK_PAGE_FROM_PROGRAM);
    folders.emplace_back(RACK_PAGE_SOURCE);
    for (const std::filesystem::path& folder : folders)
        if (std::filesystem::is_regular_file(folder / "index.html", error))
            return folder.lexically_normal().string();
    return "";
}

} // namespace rack
