#include "main/dispatch.h"

#include "common/result_codes.h"
#include "connections/conn.h"

#include <strings.h>

#include <algorithm>
#include <iterator>

namespace {

constexpr std::int32_t kHandlerCount = 2;
constexpr HandlerEntry kHandlers[kHandlerCount] = {
    {"NULL", nullptr, nullptr},
    {"*", get_conn, set_conn},
};

// The first row that takes the type. The last one takes every type.
const HandlerEntry& find_handler(const std::string& type) {
    const HandlerEntry* last = std::prev(std::end(kHandlers));
    return *std::find_if(std::begin(kHandlers), last, [&](const HandlerEntry& entry) {
        return strcasecmp(entry.name, type.c_str()) == 0;
    });
}

}  // namespace

int dispatch_get(const std::string& type, const std::string& file, const std::string& user,
                 const std::string& password) {
    const GetHandler handler = find_handler(type).get;
    return handler == nullptr ? kNoHandler : handler(type, file, user, password);
}

int dispatch_set(const std::string& type, const std::string& file, const std::string& user,
                 const std::string& password, bool remove) {
    const SetHandler handler = find_handler(type).set;
    return handler == nullptr ? kNoHandler : handler(type, file, user, password, remove);
}
