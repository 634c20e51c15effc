#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "core/common/non_copyable.h"

namespace ObjProbe {

// The command line:
//
//   objprobe HOST USER PASSWORD SERVICE QUERY [report]
//
//   SERVICE  HUB | VLT | AGT | DML | DB, in letters of either case; with DB the host is the
//            connection string of a store
//   QUERY    OBJECT_TYPE
//          | pattern PATTERN [options OPTIONS | options_file FILE]
//          | pattern_file FILE [options OPTIONS | options_file FILE]
//
// "report" as the very last word is taken first, whatever it stands behind. Words behind the query
// and its one pair of options are not looked at.
struct Arguments : public Common::NonCopyable {
  // `argv` is borrowed.
  Arguments(int argument_count, const char* const* argument_vector);

  // True when the command line is complete. Otherwise prints what was found so far, in the order of
  // the fields, and the code of the failure. Throws no Common::Error.
  bool Parse();

  std::string hostname;
  std::string user;
  std::string password;
  std::string service;  // in upper case
  std::string object_type;
  std::string pattern;
  std::string pattern_file;
  std::string options;
  std::string options_file;
  std::string report;  // "report" or empty

  std::uint32_t argc;
  const char* const* argv;
  std::uint32_t next = 1;  // index of the next argument
  std::set<std::string> services;

 private:
  void Take();
  // The next argument. Throws Common::Error 1 when there is none.
  const char* Arg();
  // `word` in upper case. Throws Common::Error 2 when it names no service.
  std::string FindService(const std::string& word) const;
};

// The number by which the connection library selects the service of an upper-case keyword. Words
// that it does not know select the hub. Knows one keyword more than the command line accepts.
inline constexpr unsigned int kHubServiceId = 33;
inline constexpr unsigned int kVaultServiceId = 34;
inline constexpr unsigned int kAgentServiceId = 35;
inline constexpr unsigned int kRackServiceId = 45;
inline constexpr unsigned int kDmlServiceId = 46;  // always on this machine
unsigned int GetServiceId(const std::string& service);

// Prints the usage text.
void Usage();

}  // namespace ObjProbe
