#include "platform/system_identity.h"

#include "common/filefuncs.h"
#include "platform/command_runner.h"
#include "platform/os_subtype.h"

namespace {

// The product configuration by the text of the file that it is asked of: a run needs it up to five
// times, and each question costs as much as several registry calls. A file that cannot be read is
// asked each time, for the message that this brings.
const std::string& remembered_product_config() {
    static struct {
        std::string source;
        std::string configuration;
    } last;
    std::string source;
    if (!readfile("/etc/systeminfo", source) || source.empty() || source != last.source) {
        last.configuration.clear();
        const bool asked = read_product_config(last.configuration);
        last.source = asked ? source : "";
    }
    return last.configuration;
}

}  // namespace

bool read_product_config(std::string& configuration) {
    return run_command_first_line(
        R"(cat /etc/systeminfo | grep PRODUCT_CONFIG | head -n1 | cut -d '"' -f 2)", configuration);
}

unsigned current_image_type() {
    return static_cast<unsigned>(create_os_subtype()->image_type());
}

bool is_zero_product() {
    const unsigned type = current_image_type();
    if (type < 8 || type > 10) {
        return false;
    }
    const std::string& configuration = remembered_product_config();
    return configuration == "zero" || configuration == "Zero";
}
