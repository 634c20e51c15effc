#include "tools/objprobe_store/object_generator.h"

#include <cstddef>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "core/common/guid.h"
#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "core/common/string.h"
#include "enterprise/common/por/unit_accumulator.h"

namespace StoreTool {

namespace {

constexpr Common::SourceFile kSource{"tools/objprobe_store/object_generator"};

enum Kind : std::uint64_t { kMachine, kPlan, kTask, kArchive, kActivity };

// How many objects of a kind a machine has, in the order of their places.
constexpr std::uint64_t kPlaces[] = {1, 2, 5, 4, 8};
constexpr std::uint64_t kGroupSize = 20;

// Seconds of 2023-01-01 00:00:00 UTC; all times lie in the two years behind it.
constexpr std::uint64_t kFirstTime = 1672531200;
constexpr std::uint64_t kTimeSpan = 2 * 365 * 86400;

constexpr const char16_t* kHosts[] = {u"db", u"web", u"mail", u"files", u"build", u"vdi", u"erp"};
constexpr const char16_t* kCities[] = {u"berlin", u"osaka", u"lyon", u"austin", u"pune", u"oslo"};
constexpr const char16_t* kSystems[] = {u"Debian GNU/Linux 12 (bookworm)", u"Ubuntu 22.04.4 LTS",
                                        u"Red Hat Enterprise Linux 9.3",
                                        u"Windows Server 2022 Standard", u"macOS 14.3"};
constexpr const char16_t* kFolders[] = {
    u"/etc", u"/home", u"/srv/data", u"/var/lib/mysql", u"/var/www", u"C:\\Users", u"D:\\Projects"};
constexpr const char16_t* kSchedules[] = {u"hourly", u"daily", u"weekly", u"monthly"};
constexpr const char16_t* kPhases[] = {u"Snapshot", u"Scan", u"Transfer", u"Verify", u"Cleanup"};
constexpr const char16_t* kOwners[] = {u"root", u"backup", u"operator", u"svc-backup"};
constexpr const char* kFailedPaths[] = {"/home/anna/mail.pst", "/var/lib/mysql/ibdata1",
                                        "/srv/data/plan.xlsx"};

// SplitMix64, with the constants that its author published.
std::uint64_t Mix(std::uint64_t value) {
  value += 0x9E3779B97F4A7C15;
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
  return value ^ (value >> 31);
}

class Random {
 public:
  explicit Random(std::uint64_t state) : state_(state) {}

  std::uint64_t Next() {
    state_ += 0x9E3779B97F4A7C15;
    return Mix(state_);
  }
  std::uint64_t Below(std::uint64_t limit) { return Next() % limit; }
  template <class T, std::size_t N>
  T Pick(T const (&items)[N]) {
    return items[Below(N)];
  }

 private:
  std::uint64_t state_;
};

Common::String ToText(std::uint64_t number) {
  const std::string digits = std::to_string(number);
  return Common::String(digits.begin(), digits.end());
}

// One object under construction. The names of the calls are those of the values.
class Maker {
 public:
  Maker(std::uint64_t seed, std::uint64_t index, const Por::Construction::UnitFactory& factory)
      : seed_(seed),
        group_(index / kGroupSize),
        random_(Mix(seed) ^ Mix(index + 1)),
        build_(factory) {}

  Por::OwnedUnit Make(Kind kind, std::uint64_t place) {
    build_.Composite();
    Mark("Is", u"Object");
    switch (kind) {
      case kMachine:
        MakeMachine();
        break;
      case kPlan:
        MakePlan(place);
        break;
      case kTask:
        MakeTask(place);
        break;
      case kArchive:
        MakeArchive(place);
        break;
      case kActivity:
        MakeActivity(place);
        break;
    }
    build_.End();
    return build_.TakeResult();
  }

 private:
  // The identification of an object, also of one that is not made yet.
  Common::Guid MakeGuid(Kind kind, std::uint64_t place) const {
    const std::uint64_t name = Mix(seed_) + group_ * 64 + kind * 8 + place;
    Common::Guid guid;
    std::uint64_t bits = Mix(name);
    for (std::size_t i = 0; i < guid.bytes.size(); ++i) {
      if (i == 8) bits = Mix(bits ^ name);
      guid.bytes[i] = static_cast<unsigned char>(bits >> (8 * (i % 8)));
    }
    return guid;
  }

  template <std::size_t N>
  void Mark(const char (&name)[N], const char16_t* text) {
    build_.Trait(name);
    build_.String(text);
    build_.End();
  }
  template <std::size_t N>
  void MarkNil(const char (&name)[N]) {
    build_.Trait(name);
    build_.Nil();
    build_.End();
  }
  void MarkKey(const Common::Guid& id) {
    build_.Trait("PrimaryKey");
    build_.Guid(id);
    build_.End();
  }
  template <std::size_t N>
  void Text(const char (&name)[N], const Common::String& text) {
    build_.Property(name);
    build_.String(text);
    build_.End();
  }
  template <std::size_t N>
  void Size(const char (&name)[N], std::uint64_t value) {
    build_.Property(name);
    build_.QWord(value);
    build_.End();
  }
  template <std::size_t N>
  void Time(const char (&name)[N], std::uint64_t seconds) {
    build_.Property(name);
    build_.SQWord(static_cast<long long>(seconds));
    build_.End();
  }
  template <std::size_t N>
  void Flag(const char (&name)[N], bool value) {
    build_.Property(name);
    build_.Boolean(value);
    build_.End();
  }
  template <std::size_t N>
  void Count(const char (&name)[N], std::uint64_t value) {
    build_.Property(name);
    build_.DWord(static_cast<unsigned int>(value));
    build_.End();
  }
  template <std::size_t N>
  void Reference(const char (&name)[N], const char16_t* type, const Common::Guid& id) {
    build_.Property(name);
    build_.Guid(id);
    Mark("ForeignKey", type);
    build_.End();
  }
  template <std::size_t N>
  void Bytes(const char (&name)[N], std::size_t size) {
    std::vector<unsigned char> bytes(size);
    for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random_.Next());
    build_.Property(name);
    build_.Blob(bytes);
    build_.End();
  }

  std::uint64_t PickTime() { return kFirstTime + random_.Below(kTimeSpan); }
  Common::String PickHost() {
    return Common::String(random_.Pick(kHosts)) + u"-" + ToText(group_) + u"." +
           random_.Pick(kCities) + u".example.com";
  }

  void MakeMachine() {
    Mark("Is", u"Machine");
    build_.Property("ID");
    build_.Guid(MakeGuid(kMachine, 0));
    MarkNil("PrimaryKey");
    build_.End();
    Text("Name", PickHost());
    Text("OperatingSystem", random_.Pick(kSystems));
    Flag("Online", random_.Below(4) != 0);
    build_.Property("AgentPort");
    build_.Word(static_cast<unsigned short>(9000 + random_.Below(1000)));
    build_.End();
    build_.Property("UtcOffsetMinutes");
    build_.SWord(static_cast<short>(static_cast<int>(random_.Below(53)) * 30 - 720));
    build_.End();
    Time("LastSeen", PickTime());
    Size("MemoryBytes", (random_.Below(63) + 1) << 30);
    Bytes("CertificateDigest", 20);
    build_.Property("Addresses");
    build_.Array();
    Mark("Searchable", u"");
    for (std::uint64_t i = 0, count = 1 + random_.Below(3); i < count; ++i) {
      build_.String(u"10." + ToText(random_.Below(256)) + u"." + ToText(random_.Below(256)) + u"." +
                    ToText(1 + random_.Below(254)));
      build_.End();
    }
    build_.End();
    build_.Property("Volumes");
    build_.Array();
    for (std::uint64_t i = 0, count = 1 + random_.Below(3); i < count; ++i) {
      build_.Composite();
      Text("Path", random_.Pick(kFolders));
      const std::uint64_t total = (1 + random_.Below(4000)) << 30;
      Size("TotalBytes", total);
      Size("FreeBytes", random_.Below(total));
      build_.End();
    }
    build_.End();
    Stamp();
  }

  void MakePlan(std::uint64_t place) {
    Mark("Is", u"BackupPlan");
    MarkKey(MakeGuid(kPlan, place));
    const char16_t* schedule = random_.Pick(kSchedules);
    Text("Name", Common::String(schedule) + u" backup of " + PickHost());
    Reference("MachineID", u"Machine", MakeGuid(kMachine, 0));
    Flag("Enabled", random_.Below(10) != 0);
    build_.Property("Priority");
    build_.Byte(static_cast<unsigned char>(random_.Below(10)));
    build_.End();
    build_.Property("Schedule");
    build_.Composite();
    Mark("Source", u"Template");
    Text("Kind", schedule);
    build_.Property("HourShift");
    build_.SByte(static_cast<signed char>(static_cast<int>(random_.Below(24)) - 12));
    build_.End();
    Count("RetryCount", random_.Below(6));
    Count("RetryDelaySeconds", 30 * (1 + random_.Below(20)));
    build_.End();
    build_.Property("Include");
    build_.Array();
    for (std::uint64_t i = 0, count = 1 + random_.Below(4); i < count; ++i) {
      build_.String(random_.Pick(kFolders));
      build_.End();
    }
    build_.End();
    build_.Property("Retention");
    build_.Composite();
    Count("KeepDays", 7 * (1 + random_.Below(52)));
    Size("MaxBytes", random_.Below(1ULL << 42));
    build_.End();
    build_.Property("Owner");
    if (random_.Below(3) == 0) {
      build_.Nil();
    } else {
      build_.String(random_.Pick(kOwners));
    }
    build_.End();
    Stamp();
  }

  void MakeTask(std::uint64_t place) {
    Mark("Is", u"Task");
    Mark("Is", random_.Below(3) == 0 ? u"VerifyTask" : u"BackupTask");
    const Common::Guid plan = MakeGuid(kPlan, place % kPlaces[kPlan]);
    build_.Property("Key");
    build_.Composite();
    MarkNil("PrimaryKey");
    build_.Property("ID");
    build_.Guid(MakeGuid(kTask, place));
    build_.End();
    Reference("PlanID", u"BackupPlan", plan);
    Stamp();
    build_.End();
    Text("Name", Common::String(random_.Pick(kPhases)) + u" " + random_.Pick(kFolders));
    build_.Property("State");
    build_.Byte(static_cast<unsigned char>(random_.Below(5)));
    build_.End();
    const std::uint64_t created = PickTime();
    Time("CreatedAt", created);
    Time("NextRun", created + random_.Below(7 * 86400));
    Count("Runs", random_.Below(1000));
    build_.Property("LastResult");
    build_.SDWord(random_.Below(8) == 0 ? -static_cast<int>(1 + random_.Below(40)) : 0);
    build_.End();
    build_.Property("Command");
    build_.Composite();
    Text("Executable", u"/usr/lib/backup/agent");
    build_.Property("Arguments");
    build_.Array();
    build_.String(u"--plan");
    build_.End();
    build_.Guid(plan);
    build_.End();
    build_.String(u"--rate");
    build_.End();
    build_.DWord(static_cast<unsigned int>(1000 * random_.Below(1000)));
    build_.End();
    build_.End();
    Flag("Elevated", random_.Below(2) == 0);
    build_.End();
  }

  void MakeArchive(std::uint64_t place) {
    Mark("Is", u"Archive");
    build_.Property("Location");
    build_.String(u"vault://" + Common::String(random_.Pick(kCities)) + u"/" + ToText(seed_) +
                  u"/" + ToText(group_) + u"/archive-" + ToText(place) + u".arc");
    MarkNil("PrimaryKey");
    build_.End();
    Reference("PlanID", u"BackupPlan", MakeGuid(kPlan, place % kPlaces[kPlan]));
    const std::uint64_t original = 1 + random_.Below(1ULL << 40);
    Size("OriginalBytes", original);
    Size("StoredBytes", original / (1 + random_.Below(6)));
    build_.Property("CompressionRatio");
    build_.Double(1.0 + static_cast<double>(random_.Below(4096)) / 1024.0);
    build_.End();
    Time("CreatedAt", PickTime());
    Flag("Encrypted", random_.Below(2) == 0);
    Bytes("Digest", 16 + 16 * random_.Below(2));
    build_.Property("Slices");
    build_.Array();
    for (std::uint64_t i = 0, count = 1 + random_.Below(6); i < count; ++i) {
      build_.Composite();
      build_.Property("Number");
      build_.Word(static_cast<unsigned short>(i));
      build_.End();
      Time("Time", PickTime());
      build_.Property("GrowthBytes");
      build_.SQWord(static_cast<long long>(random_.Below(1ULL << 32)) - (1LL << 31));
      build_.End();
      build_.End();
    }
    build_.End();
    Text("Comment", random_.Below(4) == 0 ? u"Kept for the yearly audit." : u"");
    Stamp();
  }

  void MakeActivity(std::uint64_t place) {
    Mark("Is", u"Activity");
    MarkKey(MakeGuid(kActivity, place));
    Reference("TaskID", u"Task", MakeGuid(kTask, place % kPlaces[kTask]));
    Reference("MachineID", u"Machine", MakeGuid(kMachine, 0));
    Text("Name", Common::String(random_.Pick(kPhases)) + u" of " + PickHost());
    const std::uint64_t started = PickTime();
    Time("StartedAt", started);
    const bool running = random_.Below(10) == 0;
    build_.Property("FinishedAt");
    if (running) {
      build_.Nil();
    } else {
      build_.SQWord(static_cast<long long>(started + 1 + random_.Below(20000)));
    }
    build_.End();
    build_.Property("Progress");
    build_.Double(running ? static_cast<double>(random_.Below(1000)) / 10.0 : 100.0);
    build_.End();
    Size("BytesProcessed", random_.Below(1ULL << 40));
    if (!running && random_.Below(5) == 0) {
      build_.Property("Error");
      build_.Error(MakeFailure());
      build_.End();
    }
    build_.Property("Phases");
    build_.Array();
    for (std::uint64_t i = 0, count = 1 + random_.Below(4); i < count; ++i) {
      build_.Composite();
      Text("Name", random_.Pick(kPhases));
      Count("Seconds", random_.Below(4000));
      build_.End();
    }
    build_.End();
    Stamp();
  }

  Common::Error MakeFailure() {
    Common::Error error =
        Common::MakePathError(0x40014, Common::GetMessageText(Common::MessageRow::FileAccessDenied),
                              random_.Pick(kFailedPaths), kSource.At("MakeFailure", 10));
    error.SetReason(Common::Error(0x40007, Common::GetMessageText(Common::MessageRow::FileOpen),
                                  kSource.At("MakeFailure", 20)));
    return error;
  }

  // The time of the last change, which is no part of a key.
  void Stamp() { Size("DmlTimeStamp", PickTime()); }

  const std::uint64_t seed_;
  const std::uint64_t group_;
  Random random_;
  Por::Util::UnitAccumulator build_;
};

}  // namespace

Por::OwnedUnit ObjectGenerator::Make(std::uint64_t index) const {
  std::uint64_t place = index % kGroupSize;
  std::uint64_t kind = kMachine;
  while (place >= kPlaces[kind]) place -= kPlaces[kind++];
  return Maker(seed_, index, *factory_).Make(static_cast<Kind>(kind), place);
}

}  // namespace StoreTool
