// What the verbs do that show tables; their command line is in commands.cpp.
#ifndef KXCTL_TABLES_H
#define KXCTL_TABLES_H

#include <string>
#include <vector>

#include "shell.h"

struct top_options {
  double interval_s = 1;
  std::string key = "received";
};

void list(const options& given, const std::vector<std::string>& words, bool names_only);
void tree(const options& given, const std::string& component);  // "" for all
void status(const options& given, const std::string& name);
void introspect(const options& given, const std::string& service);
void stats(const options& given, bool prometheus);
void top(const options& given, const top_options& how, steady::time_point until);
std::vector<std::string> top_keys();
void doctor(const options& given);

// The script for a shell, or for "words" what may stand in place of the last word of a line.
void completion(const CLI::App& app, const std::string& shell, const std::vector<std::string>& line);

#endif
