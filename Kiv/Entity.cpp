// SPDX-License-Identifier: Apache-2.0
#include "Kiv/Entity.h"

#include <algorithm>
#include <iomanip>
#include <string>
#include <vector>

namespace Kiv {

AttrVisitor::~AttrVisitor() = default;

void AttrVisitor::counter(std::string_view name, std::string_view type, U64 value) {
  attr(name, type, std::to_string(value));
}

Entity::~Entity() = default;

void Entity::visitAttrs(AttrVisitor& visitor) const {
  visitor.attr("name", "Kiv::String", name_);
}

namespace {

class Table final : public AttrVisitor {
 public:
  void attr(std::string_view name, std::string_view type, const String& value) override {
    rows_.push_back({std::string(name), std::string(type), value});
    nameWidth_ = std::max(nameWidth_, name.size());
    typeWidth_ = std::max(typeWidth_, type.size());
  }
  void print(std::ostream& out) const {
    for (const Row& row : rows_) {
      out << row.name << std::string(nameWidth_ - row.name.size() + 2, ' ') << row.type
          << std::string(typeWidth_ - row.type.size() + 2, ' ') << row.value << '\n';
    }
  }

 private:
  struct Row {
    std::string name;
    std::string type;
    String value;
  };
  std::vector<Row> rows_;
  std::size_t nameWidth_ = 0;
  std::size_t typeWidth_ = 0;
};

}  // namespace

void dump(std::ostream& out, const Entity& entity) {
  Table table;
  entity.visitAttrs(table);
  table.print(out);
}

}  // namespace Kiv
