#pragma once

// The network connections of the system settings service, asked over the system bus with dbus-send.
// Connections are numbered by the service; numbers outside 0 to 9 end the process by an assertion.
// Messages about a command that could not be started go to standard output.

// The first listed connection that passes the test below, or the last number listed when none does,
// or 0. Only the last 2048 bytes block of the listing is looked at.
int find_wired_connection();
int find_wireless_connection();

// Whether the settings of that connection have "802-3-ethernet" ("802-11-wireless") anywhere but at
// their very start. So also a reply without the text passes. When the command cannot be started the
// wired test is true and the wireless test false.
bool is_wired_connection(int number);
bool is_wireless_connection(int number);

// Copies the value of that setting into `out`, without a terminator: the caller gives a zeroed
// buffer large enough for any value. `out` stays as it is when the setting is not among the last
// 4096 bytes block of the reply.
void get_connection_setting(int number, const char* name, char* out);
