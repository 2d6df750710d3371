// What several tables say in the same words.
#ifndef KXCTL_PHRASES_H
#define KXCTL_PHRASES_H

#include <nlohmann/json.hpp>
#include <string>

std::string comma_list(const nlohmann::json& names);    // "-" for none
std::string users_text(const nlohmann::json& service);  // "2 users: sysmon-watch (2 times), guide-follow"
std::string state_of(const nlohmann::json& component);  // what is the matter with it, "" for nothing

#endif
