#include "tests/end_to_end/stage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>
#include <utility>

namespace EndToEnd {

namespace {

using Platform::Ipc::Test::Certificate;

// The number behind `name` in the status of a process, 0 without one.
long ReadStatus(pid_t process, const std::string& name) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name)) return std::stol(line.substr(name.size() + 1));
  }
  return 0;
}

void Append(Words& words, const Words& more) {
  words.insert(words.end(), more.begin(), more.end());
}

}  // namespace

std::string Describe(const Way& way) {
  return std::string(way.is_remote ? "Tls" : "Local").append(std::to_string(way.version));
}

int Service::CountInLog(const std::string& text) const {
  const std::string log = program_->GetErrors();
  int count = 0;
  for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
    ++count;
  }
  return count;
}

Stage::Stage()
    : authority_("Test authority", "", nullptr),
      certificate_("service", "DNS:localhost,IP:127.0.0.1", &authority_) {
  authority_.WriteCertificate(folder_ / "ca.pem");
  RunningProgram passwd(OBJPROBE_SERVICE, {"objprobe-service", "passwd", folder_ / "users", kUser});
  passwd.Type(kPassword);
  passwd.CloseInput();
  EXPECT_EQ(passwd.Wait(), 0) << passwd.GetErrors();
}

std::string Stage::Store(Words words) const {
  words.insert(words.begin(), "objprobe-store");
  const ProgramResult result = TestSupport::RunProgram(OBJPROBE_STORE, words);
  EXPECT_EQ(result.status, 0) << result.err;
  return result.out;
}

void Stage::Put(const std::string& store, const std::string& text) const {
  std::ofstream(folder_ / "object") << text;
  Store({"put", store, folder_ / "object"});
}

std::unique_ptr<Service> Stage::Serve(const Words& stores, const Way& way,
                                      const Words& more) const {
  return ServeAs(certificate_, stores, way, more);
}

std::unique_ptr<Service> Stage::ServeAs(const Certificate& certificate, const Words& stores,
                                        const Way& way, const Words& more) const {
  Words words = {"objprobe-service", "--interface-version", std::to_string(way.version)};
  for (const std::string& store : stores) Append(words, {"--serve", store});
  if (way.is_remote) {
    Append(words,
           {"--listen", "127.0.0.1:0", "--cert", certificate.WriteCertificate(folder_ / "cert.pem"),
            "--key", certificate.WriteKey(folder_ / "key.pem"), "--users", folder_ / "users"});
  }
  Append(words, more);
  auto program = std::make_unique<RunningProgram>(OBJPROBE_SERVICE, words, GetEnvironment());
  EXPECT_TRUE(Await([&] {
    return program->GetErrors().find("objprobe-service: ready\n") != std::string::npos;
  })) << program->GetErrors();
  std::uint16_t port = 0;
  const std::string log = program->GetErrors();
  const std::string_view sign = ", port ";
  if (const std::size_t at = log.find(sign); at != std::string::npos) {
    port = static_cast<std::uint16_t>(std::stoi(log.substr(at + sign.size())));
  }
  return std::make_unique<Service>(std::move(program), port);
}

Words Stage::Address(const Service& service, const Way& way) const {
  const std::string host =
      way.is_remote ? "127.0.0.1:" + std::to_string(service.GetPort()) : std::string("localhost");
  return {host, kUser, kPassword};
}

std::unique_ptr<RunningProgram> Stage::Start(const Words& address, const Words& query) const {
  Words words = {"objprobe"};
  Append(words, address);
  Append(words, query);
  return std::make_unique<RunningProgram>(OBJPROBE, words, GetEnvironment());
}

ProgramResult Stage::Run(const Words& address, const Words& query) const {
  const auto program = Start(address, query);
  program->CloseInput();
  ProgramResult result;
  result.status = program->Wait();
  result.out = program->GetOutput();
  result.err = program->GetErrors();
  return result;
}

std::string Stage::ReportOf(const std::string& store, Words query) const {
  query.insert(query.begin(), "DB");
  const ProgramResult result = Run({store, "", ""}, query);
  EXPECT_EQ(result.status, 0) << result.out;
  return result.out;
}

Words Stage::GetEnvironment() const {
  return {"VELORIN_IPC_DIR=" + GetRuntimeDirectory(), "VELORIN_IPC_CA=" + (folder_ / "ca.pem")};
}

int CountDescriptors(pid_t process, const std::string& kind) {
  int count = 0;
  std::error_code ignored;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/fd", ignored)) {
    const std::string target = std::filesystem::read_symlink(entry.path(), ignored).string();
    if (!ignored && target.starts_with(kind)) ++count;
  }
  return count;
}

long GetResidentKilobytes(pid_t process) {
  return ReadStatus(process, "VmRSS:");
}

long CountThreads(pid_t process) {
  return ReadStatus(process, "Threads:");
}

std::vector<Event> TakeEvents(std::string& text) {
  std::vector<Event> events;
  std::size_t begin = 0;
  while (begin < text.size() && text[begin] == '<') {
    const std::size_t line = text.find('\n', begin);
    const std::size_t name = text.find(' ', begin);
    if (line == std::string::npos || name > line) break;
    Event event;
    event.kind = text.substr(begin + 1, name - begin - 1);
    const std::size_t id = text.find('"', name) + 1;
    event.id = text.substr(id, text.find('"', id) - id);
    const std::string last = "\n</" + event.kind + ">\n\n";
    const std::size_t end = text.find(last, line);
    if (end == std::string::npos) break;
    event.body = text.substr(line + 1, end - line);
    begin = end + last.size();
    events.push_back(std::move(event));
  }
  text.erase(0, begin);
  return events;
}

std::string Join(const std::vector<Event>& events) {
  std::string text;
  for (const Event& event : events) {
    text.append(event.kind).append(" ").append(event.id).append("\n").append(event.body);
  }
  return text;
}

}  // namespace EndToEnd
