// A remote report: w9 SOCKET [count]
//
// Gets the packet of a reply from a Unix socket, of which eight bytes tell the length
// (little-endian) once one byte was sent, and reads it as the reply to the request of a report:
// through the client's post office, on a thread of a pool, into the printing reader. With `count`
// the objects are counted and not printed, and the number and the peak of memory go to standard
// error.

#include <malloc.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "core/common/error.h"
#include "core/common/line_tag.h"
#include "enterprise/common/dml/client/remoting.h"
#include "enterprise/common/dml/synchronous_data_store.h"
#include "enterprise/common/dml/tools/objprobe/dml.h"
#include "enterprise/common/dml/tools/objprobe/output.h"
#include "enterprise/common/ipc/client_library.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/serialize/output_buffer.h"
#include "enterprise/serialize/xml_serializer.h"
#include "platform/async_service/elastic_pool.h"
#include "platform/ipc/result_deserializer.h"
#include "platform/ipc/unique_descriptor.h"

namespace {

constexpr Common::SourceFile kSource{"bench/w9"};
constexpr std::uint32_t kFailed = 1;
// Of one read, and what a size field alone makes room for: as the transport does it.
constexpr std::size_t kReadSize = std::size_t{64} << 10;
constexpr std::size_t kMaxPromised = std::size_t{16} << 20;

Common::Error MakeError(const char* text) {
  return Common::Error(kFailed, text, kSource.At("Receive", 10));
}

Common::Error Receive(const char* path, Serialization::OutputBuffer& packet) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (std::strlen(path) >= sizeof address.sun_path) return MakeError("The path is too long.");
  std::strcpy(address.sun_path, path);
  const Platform::Ipc::UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  std::uint64_t size = 0;
  if (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::write(socket.Get(), "?", 1) != 1 ||
      ::read(socket.Get(), &size, sizeof size) != sizeof size) {
    return MakeError("Nobody serves.");
  }
  packet.Reserve(static_cast<std::size_t>(std::min<std::uint64_t>(size, kMaxPromised)));
  std::vector<char> bytes(kReadSize);
  while (packet.GetSize() < size) {
    const ssize_t got = ::read(socket.Get(), bytes.data(), bytes.size());
    if (got <= 0) return MakeError("The packet is cut.");
    if (packet.GetSize() + static_cast<std::size_t>(got) > kMaxPromised) {
      packet.Reserve(static_cast<std::size_t>(size) - packet.GetSize());
    }
    packet.Append({bytes.data(), static_cast<std::size_t>(got)});
  }
  return {};
}

// One call, whose end is told on the thread that it runs on.
class Call final : public Platform::PoolTask {
 public:
  Call(const char* path, std::unique_ptr<Binding::Request> request,
       JobManagement::JobHandler& handler)
      : path_(path), request_(std::move(request)), handler_(handler) {}

  void Run() override {
    Common::Error error;
    try {
      error = Read();
    } catch (const Common::Error& failure) {
      error = failure;
    }
    request_.reset();
    if (error.IsFailure()) {
      handler_.OnFailure(error);
    } else {
      handler_.OnSuccess();
    }
    handler_.OnFinished();
  }

 private:
  Common::Error Read() {
    Serialization::OutputBuffer packet;
    Common::Error error = Receive(path_, packet);
    if (error.IsFailure()) return error;
    const std::unique_ptr<Serialization::Deserializer> reader =
        Serialization::CreateXMLPacketDeserializer(
            reinterpret_cast<const unsigned char*>(packet.GetData()), packet.GetSize(), 0);
    std::free(packet.Release());
    Platform::Ipc::ResultDeserializer result(*reader);
    request_->ReadReply(result);
    return result.HasResult() ? result.GetResult() : MakeError("The reply has no result.");
  }

  const char* const path_;
  std::unique_ptr<Binding::Request> request_;
  JobManagement::JobHandler& handler_;
};

class Job final : public JobManagement::Job {
 public:
  Job(const char* path, std::unique_ptr<Binding::Request> request, Platform::ElasticPool& pool)
      : path_(path), request_(std::move(request)), pool_(pool) {}

  Common::Error Run(JobManagement::JobHandler*) override { return MakeError("Not in use."); }
  Common::Error Start(JobManagement::JobHandler* handler) override {
    pool_.Post(std::make_shared<Call>(path_, std::move(request_), *handler));
    return {};
  }
  Common::Error Cancel() override { return {}; }

 private:
  const char* const path_;
  std::unique_ptr<Binding::Request> request_;
  Platform::ElasticPool& pool_;
};

class AccessPoint final : public Binding::AccessPoint {
 public:
  AccessPoint(const char* path, Platform::ElasticPool& pool) : path_(path), pool_(pool) {}

  Common::Error CreateJob(std::unique_ptr<Binding::Request> request,
                          std::unique_ptr<JobManagement::Job>& job) override {
    job = std::make_unique<Job>(path_, std::move(request), pool_);
    return {};
  }
  std::uint32_t GetConnectionKey() override { return 1; }
  Common::Error GetInterfaceVersion(std::uint32_t, std::uint32_t& version,
                                    std::uint32_t&) override {
    version = 2;
    return {};
  }

 private:
  const char* const path_;
  Platform::ElasticPool& pool_;
};

class CountingReader final : public Dml::ReportReader {
 public:
  using Dml::ReportReader::Read;
  void Read(const Por::View::Unit&) override { ++count; }

  std::size_t count = 0;
};

void Count(Dml::PostOffice& office) {
  Por::Construction::InMemoryUnitFactory factory;
  CountingReader reader;
  Dml::SynchronousDataStore(&office, &factory)
      .Report(Core::EntryPoint(kSource.At("Count", 20)), {}, reader);
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  std::fprintf(stderr, "objects %zu, peak %ld KiB\n", reader.count, usage.ru_maxrss);
}

}  // namespace

int main(int argc, char** argv) {
  const bool counts = argc == 3 && std::string_view(argv[2]) == "count";
  if (argc != 2 && !counts) {
    std::fprintf(stderr, "Usage: %s SOCKET [count]\n", argv[0]);
    return 2;
  }
  ::mallopt(M_ARENA_MAX, 1);  // as the program does
  ObjProbe::PrepareStandardStreams();
  Platform::ElasticPool pool;
  try {
    const std::unique_ptr<Dml::PostOffice> office =
        Dml::Client::CreateRemoteViewProvider(std::make_shared<AccessPoint>(argv[1], pool));
    if (counts) {
      Count(*office);
    } else {
      ObjProbe::Report(*office, {});
      ObjProbe::StandardOutput().Flush();
    }
  } catch (const Common::Error& error) {
    std::fprintf(stderr, "%s: error 0x%x\n", argv[0], error.GetCode());
    return 1;
  }
}
