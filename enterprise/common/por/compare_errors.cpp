#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "core/common/error.h"
#include "core/common/error_record.h"
#include "enterprise/common/por/unit_operations.h"

namespace Por::Util {
namespace {

template <class T>
int CompareNumbers(T a, T b) {
  return (a > b) - (a < b);
}

int Sign(int value) {
  return CompareNumbers(value, 0);
}

// Takes the names of a list up to the last comma: what stands behind it is not compared. That is
// "$module", which every record has there.
class ComparedNames {
 public:
  explicit ComparedNames(const Common::ErrorRecord& record)
      : rest_(record.operations->GetParameterNames(&record)) {}

  bool HasNext() const { return rest_.find(',') != std::string_view::npos; }
  std::string_view Take() {
    const std::size_t comma = rest_.find(',');
    const std::string_view name = rest_.substr(0, comma);
    rest_.remove_prefix(comma + 1);
    return name;
  }

 private:
  std::string_view rest_;
};

int ComparePresence(const void* a, const void* b) {
  return CompareNumbers(a != nullptr, b != nullptr);
}

int CompareWide(const char16_t* a, const char16_t* b) {
  const std::u16string_view left = a;
  const std::u16string_view right = b;
  if (left.size() != right.size()) return CompareNumbers(left.size(), right.size());
  return Sign(std::memcmp(a, b, left.size() * sizeof(char16_t)));
}

int CompareParameter(const Common::ErrorRecord& a, const Common::ErrorRecord& b, const char* name) {
  const char16_t* const wide_a = a.operations->GetWide(&a, name);
  const char16_t* const wide_b = b.operations->GetWide(&b, name);
  if (const int order = ComparePresence(wide_a, wide_b)) return order;
  if (wide_a != nullptr) return CompareWide(wide_a, wide_b);
  const char* const ansi_a = a.operations->GetAnsi(&a, name);
  const char* const ansi_b = b.operations->GetAnsi(&b, name);
  if (const int order = ComparePresence(ansi_a, ansi_b)) return order;
  if (ansi_a != nullptr) return Sign(std::strcmp(ansi_a, ansi_b));
  return CompareNumbers(a.operations->GetNumber(&a, name), b.operations->GetNumber(&b, name));
}

int CompareParameters(const Common::ErrorRecord& a, const Common::ErrorRecord& b) {
  ComparedNames names_a(a);
  ComparedNames names_b(b);
  std::string name;
  while (names_a.HasNext() && names_b.HasNext()) {
    name = names_a.Take();
    if (const int order = Sign(name.compare(names_b.Take()))) return order;
    if (const int order = CompareParameter(a, b, name.c_str())) return order;
  }
  return CompareNumbers(names_a.HasNext(), names_b.HasNext());
}

}  // namespace

int CompareErrors(const Common::Error& a, const Common::Error& b) {
  const Common::ErrorRecord* left = a.GetRecord();
  const Common::ErrorRecord* right = b.GetRecord();
  // Codes and lengths of the chains decide from the head on, then parameters from the tail on, so
  // the last difference in parameters is kept. Records that are shared don't differ.
  int parameters = 0;
  for (; left != right; left = left->next, right = right->next) {
    if (const int order = ComparePresence(left, right)) return order;
    if (const int order = CompareNumbers(left->code, right->code)) return order;
    if (const int order = CompareParameters(*left, *right)) parameters = order;
  }
  return parameters;
}

}  // namespace Por::Util
