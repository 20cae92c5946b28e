#include "platform/system_identity.h"

#include "platform/command_runner.h"
#include "platform/os_subtype.h"

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
    std::string configuration;
    read_product_config(configuration);
    return configuration == "zero" || configuration == "Zero";
}
