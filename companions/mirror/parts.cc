#include "parts.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

namespace {

constexpr size_t kMaxParts = 8;

}  // namespace

Part& Parts::Get(const std::string& name_, uint64_t version_) {
  DropIf([&](const Part& part_) { return part_.name == name_ && part_.version != version_; });
  auto part = std::find_if(parts.begin(), parts.end(),
                           [&](const Part& part_) { return part_.name == name_; });
  if (part == parts.end()) {
    if (parts.size() == kMaxParts) {
      const auto fewer = [](const Part& a_, const Part& b_) { return a_.turns < b_.turns; };
      Drop(std::string(std::max_element(parts.begin(), parts.end(), fewer)->name));
    }
    const uint64_t number = known.NextPart();
    auto file = std::make_unique<LocalFile>(known.PartPath(number), O_TRUNC);
    part = parts.insert(parts.end(), Part{name_, version_, number, std::move(file)});
  }
  ++part->turns;
  return *part;
}

void Parts::Drop(const std::string& name_) {
  DropIf([&](const Part& part_) { return part_.name == name_; });
}

void Parts::DropIf(const std::function<bool(const Part&)>& is_dropped_) {
  const auto end = std::stable_partition(parts.begin(), parts.end(),
                                         [&](const Part& part_) { return !is_dropped_(part_); });
  for (auto part = end; part != parts.end(); ++part) {
    unlink(known.PartPath(part->number).c_str());
  }
  parts.erase(end, parts.end());
}

void Parts::Release(const std::string& name_) {
  const auto is_named = [&](const Part& part_) { return part_.name == name_; };
  parts.erase(std::remove_if(parts.begin(), parts.end(), is_named), parts.end());
}

bool Parts::HasYoungerThan(int turns_) const {
  return std::any_of(parts.begin(), parts.end(),
                     [&](const Part& part_) { return part_.turns < turns_; });
}
