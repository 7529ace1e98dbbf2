// The programs' one rule for writing JSON text.
#include "json.h"

namespace cli {

std::string json_text(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace cli
