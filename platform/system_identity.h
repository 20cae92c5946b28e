#pragma once

#include <string>

// The device's product configuration as /etc/systeminfo writes it ("standard", "zero" ...); empty
// when it has none. False, and `configuration` untouched, when the command could not be started.
bool read_product_config(std::string& configuration);

// The image type, 1 to 10; 10 on a device without an identity.
unsigned current_image_type();

// True on image types 8, 9 and 10. Only there can a device be a zero product, and an import carries
// the device's own configuration.
bool has_product_config(unsigned image_type);

// True on image types 8, 9 and 10 with the product configuration "zero" or "Zero".
bool is_zero_product();
