// What was applied, kept until the next boot: the policy, and the commands that came of it.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace tool {

inline constexpr char state_folder[] = "/var/run/mordel";

// Makes the folder where it is missing; "" or why it cannot be had.
std::string make_state_folder();

// kind: "toml", "start" or "rules"
std::optional<std::string> read_state(const std::string &ifname, const char *kind);
bool write_state(const std::string &ifname, const char *kind, const std::string &text);
void remove_state(const std::string &ifname);
std::vector<std::string> state_names();  // of the interfaces that have a policy, sorted

}  // namespace tool
