// The rack's web side: the page's files, the JSON API and the event stream, on one address.
#pragma once

#include "rack.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

namespace httplib {
class Server;
}

namespace rack {

class Web {
  public:
    // Binds `address`:`port` (0: the system chooses) and serves the page's files of the folder
    // `page` (index.html, rack.css and rack.js, read once and served by their names only) and the
    // API of `rack` from threads of its own. Throws std::runtime_error when it cannot.
    Web(Rack& rack, const std::string& address, uint16_t port, const std::string& page);
    // Ends the event streams (the rack closes) and stops serving.
    ~Web();
    Web(const Web&) = delete;
    Web& operator=(const Web&) = delete;

    uint16_t port() const { return port_; }

  private:
    Rack& rack_;
    std::unique_ptr<httplib::Server> server_;
    uint16_t port_ = 0;
    std::atomic<bool> served_{false}; // the server has stopped listening
    std::atomic<size_t> streams_{0}; // event streams open
    std::thread thread_;
};

// The folder of the page's files: installed beside the program (../share/vlmgpio/rack from its
// own folder), else the source tree's it was built from; "" when neither holds index.html.
std::string page_folder();

} // namespace rack
