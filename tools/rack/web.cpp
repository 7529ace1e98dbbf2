// The rack's page, JSON API and event stream over HTTP (cpp-httplib).
#include "web.h"

#include "cli.h"
#include "values.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <httplib.h>
#include <map>
#include <sstream>
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
    return cli::json_text({{"error", message}});
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

// The page's own files, by their exact names: read once, served from memory, so that no path a
// request makes up reaches the file system. cpp-httplib matches a path as a regular expression.
struct PageFile {
    const char* path;
    const char* file;
    const char* type;
};
constexpr PageFile kPageFiles[] = {{"/", "index.html", "text/html; charset=utf-8"},
                                   {"/index\\.html", "index.html", "text/html; charset=utf-8"},
                                   {"/rack\\.css", "rack.css", "text/css; charset=utf-8"},
                                   {"/rack\\.js", "rack.js", "text/javascript; charset=utf-8"}};

std::string file_text(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in)
        throw std::runtime_error(path + ": cannot read the page's file");
    return text.str();
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
    server.set_error_handler([](const httplib::Request&, httplib::Response& res) {
        if (res.body.empty()) // every refusal says what it is, as JSON
            reply(res, res.status,
                  error_json(res.status == 404
                                 ? "not found"
                                 : "bad request (HTTP " + std::to_string(res.status) + ")"));
    });
    for (const PageFile& file : kPageFiles)
        server.Get(file.path, [text = file_text(page + "/" + file.file),
                               type = file.type](const httplib::Request&, httplib::Response& res) {
            res.set_content(text, type);
        });

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

    // Each action answers with the state it leaves, or with an error and its status. Its fields
    // come from a form body or the query string alike (cpp-httplib gathers both into the params).
    using Action = std::function<void(const httplib::Request&)>;
    auto actions = std::make_shared<std::map<std::string, Action>>();
    auto act = [this](const Action& action, const httplib::Request& req, httplib::Response& res) {
        try {
            action(req);
            reply(res, 200, rack_.state_json());
        } catch (const Refusal& refusal) {
            reply(res, refusal.status, error_json(refusal.what()));
        } catch (const cli::Refused& refused) {
            reply(res, 400, error_json(refused.what()));
        }
    };
    auto post = [&](const char* path, Action action) {
        (*actions)[path] = action;
        server.Post(path, [act, action](const httplib::Request& req, httplib::Response& res) {
            act(action, req, res);
        });
    };
    server.set_pre_routing_handler(
        [act, actions](const httplib::Request& req, httplib::Response& res) {
            using Handled = httplib::Server::HandlerResponse;
            if (!own_request(req)) {
                reply(res, 403, error_json("not this page's request (Host or Origin)"));
                return Handled::Handled;
            }
            // A POST with no body at all (no length, as curl -X POST sends it) has its fields in
            // the query string; cpp-httplib would refuse it for the missing length.
            const auto found = actions->find(req.path);
            if (req.method != "POST" || req.has_header("Content-Length") ||
                req.has_header("Transfer-Encoding") || found == actions->end())
                return Handled::Unhandled;
            act(found->second, req, res);
            return Handled::Handled;
        });
    post("/api/gpi", [this](const httplib::Request& req) {
        if (req.has_param("levels") && (req.has_param("line") || req.has_param("action")))
            throw cli::Refused("levels sets all eight lines: give it without line and action");
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
    thread_ = std::thread([this] {
        server_->listen_after_bind();
        served_ = true;
    });
}

Web::~Web() {
    rack_.close();
    // stop() does nothing to a server that has not begun to listen (a rack stopped as it starts)
    while (!server_->is_running() && !served_)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
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
