// SPDX-License-Identifier: Apache-2.0
// Shows the links, addresses, routes and neighbours of a network namespace, and what changes:
//
//   netView --netns ns-red                       # a table, then a line for each change
//   netView --netns ns-red --once --json | jq .  # one document, fields as of ip(8) -j
//   netView --netns ns-red --json --routes       # the document, then a line of JSON a change

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "examples/support/Example.h"
#include "examples/support/KernelJson.h"
#include "examples/support/Options.h"

namespace {

using example::Json;

struct Options : example::PictureFilter {
  Wirl::NamespaceName netNs{"default"};
  bool once = false, json = false, statistics = false;
  bool links = false, addresses = false, routes = false, neighbors = false, nextHops = false, rules = false;
};

// Text
// --------------------------------------------------------------------------------------------------------

/// The values of an object in one line, without quotes: "ifname v0 mtu 1500 flags BROADCAST,UP".
std::string lineOf(const Json& json) {
  std::string line;
  for (const auto& [name, value] : json.items()) {
    std::string text;
    if (value.is_array() && !value.empty() && value[0].is_object()) {
      for (const auto& each : value) text += (text.empty() ? "[" : ", ") + lineOf(each);
      text += "]";
    } else if (value.is_array()) {
      for (const auto& each : value) text += (text.empty() ? "" : ",") + each.get<std::string>();
      if (text.empty()) continue;
    } else if (value.is_object()) {
      text = "(" + lineOf(value) + ")";
    } else if (!value.is_null() && !(value.is_boolean() && value.get<bool>())) {
      text = value.is_string() ? value.get<std::string>() : value.dump();
    }
    line += (line.empty() ? "" : " ") + name + (text.empty() ? "" : " ") + text;
  }
  return line;
}

/// What a changed member has now that it had not before, and the other way round.
Json difference(const Json& before, const Json& now) {
  Json json = Json::object();
  for (const auto& [name, value] : before.items()) {
    if (!now.contains(name) || now[name] != value) json["before"][name] = value;
  }
  for (const auto& [name, value] : now.items()) {
    if (!before.contains(name) || before[name] != value) json["now"][name] = value;
  }
  return json;
}

// The program
// ---------------------------------------------------------------------------------------------------

class NetView {
 public:
  explicit NetView(const Options& options) : options_(options), picture_(options) {
    picture_.links = Wirl::linkViewFactory("links", options.netNs);
    picture_.showLinks = options.links;
    watch(*picture_.links);
    if (options.addresses)
      watch(*(picture_.addresses = Wirl::addressViewFactory("addresses", options.netNs)));
    if (options.routes || options.rules)
      watch(*(picture_.routes = Wirl::routeViewFactory("routes", options.netNs)));
    picture_.showRoutes = options.routes;
    picture_.showRules = options.rules;
    if (options.neighbors)
      watch(*(picture_.neighbors = Wirl::neighborViewFactory("neighbors", options.netNs)));
    if (options.nextHops) watch(*(picture_.nextHops = Wirl::nextHopViewFactory("nexthops", options.netNs)));
    for (Wirl::KernelView* const view : views_) view->enabledIs(true);
    if (options.once && !picture_.links->present()) {
      throw Kiv::ErrnoException(ENOENT, "no such namespace", std::string(options.netNs.stringValue()));
    }
  }

  bool isShown() const { return shown_; }

 private:
  void watch(Wirl::KernelView& view) {
    views_.push_back(&view);
    reactors_.emplace_back(view.inSync, [this, &view] { syncChanged(view); });
  }

  void syncChanged(const Wirl::KernelView& view) {
    if (shown_) {
      note(view.name(), view.inSync() ? "in sync" : view.present() ? "out of sync" : "namespace gone");
      return;
    }
    if (!std::all_of(views_.begin(), views_.end(), [](const auto* each) { return each->inSync(); })) return;
    shown_ = true;
    show();
    if (options_.once) return Kiv::activityLoop().stop();
    follow();
  }

  void note(const std::string& what, const char* text) {
    if (options_.json) {
      std::printf("%s\n", Json({{"view", what}, {"state", text}}).dump().c_str());
    } else {
      std::printf("%s: %s\n", what.c_str(), text);
    }
    std::fflush(stdout);
  }

  void show() {
    const Json document = picture_.document();
    if (options_.json) {
      std::printf("%s\n", document.dump().c_str());
    } else {
      for (const auto& [kind, members] : document.items()) {
        std::printf("%s\n", kind.c_str());
        for (const auto& member : members) std::printf("  %s\n", lineOf(member).c_str());
      }
    }
    std::fflush(stdout);
  }

  // What changes --------------------------------------------------------------------------------------------

  void follow() {
    if (options_.links) followMembers("link", *picture_.links);
    if (options_.addresses) followMembers("address", *picture_.addresses);
    if (options_.neighbors) followMembers("neighbor", *picture_.neighbors);
    if (options_.nextHops) followMembers("nexthop", *picture_.nextHops);
    if (options_.rules) {
      rules_ = rules();
      reactors_.emplace_back(picture_.routes->ruleChanges, [this] { tellRules(); });
    }
    if (!options_.routes) return;
    picture_.routes->forEach([&](const Wirl::Route& route) {
      if (picture_.isWanted(route)) routes_.emplace(route.key, picture_.of(route));
    });
    reactors_.emplace_back(picture_.routes->changeCount, [this] {
      for (const auto& change : picture_.routes->changes()) tellRoute(change.key);
    });
  }

  template <typename View>
  void followMembers(const char* kind, const View& view) {
    reactors_.emplace_back(view.changeCount, [this, kind, &view] {
      for (const auto& change : view.changes()) {
        const auto& info = change.entity->info();
        if (!picture_.isWanted(info)) continue;
        const Json now = picture_.of(info);
        tell(change.kind, kind, now,
             change.kind == Wirl::ChangeKind::changed ? difference(picture_.of(change.before), now) : Json());
      }
    });
  }

  /// The view of routes does not keep what was before, so this program does.
  void tellRoute(const Wirl::RouteKey& key) {
    const Wirl::Route route = picture_.routes->find(key);
    const auto before = routes_.find(key);
    if (route && picture_.isWanted(route)) {
      const Json now = picture_.of(route);
      if (before == routes_.end()) {
        tell(Wirl::ChangeKind::added, "route", now, Json());
      } else {
        tell(Wirl::ChangeKind::changed, "route", now, difference(before->second, now));
      }
      routes_[key] = now;
    } else if (before != routes_.end()) {
      tell(Wirl::ChangeKind::removed, "route", before->second, Json());
      routes_.erase(before);
    }
  }

  std::vector<Json> rules() const {
    const Json all = picture_.rules();
    return {all.begin(), all.end()};
  }
  void tellRules() {
    const auto before = std::exchange(rules_, rules());
    const auto tellMissing = [this](const auto& from, const auto& in, Wirl::ChangeKind change) {
      for (const Json& rule : from) {
        if (std::find(in.begin(), in.end(), rule) == in.end()) tell(change, "rule", rule, Json());
      }
    };
    tellMissing(before, rules_, Wirl::ChangeKind::removed);
    tellMissing(rules_, before, Wirl::ChangeKind::added);
  }

  void tell(Wirl::ChangeKind change, const char* kind, const Json& member, const Json& changed) {
    std::ostringstream what;
    what << change;
    if (options_.json) {
      Json line = {{"change", what.str()}, {kind, member}};
      if (changed.is_object()) line.update(changed);
      std::printf("%s\n", line.dump().c_str());
    } else if (changed.is_object()) {
      const Json none = Json::object();
      std::printf("%s %s %s: %s -> %s\n", what.str().c_str(), kind, titleOf(member).c_str(),
                  lineOf(changed.value("before", none)).c_str(), lineOf(changed.value("now", none)).c_str());
    } else {
      std::printf("%s %s %s\n", what.str().c_str(), kind, lineOf(member).c_str());
    }
    std::fflush(stdout);
  }

  static std::string titleOf(const Json& member) {
    std::string title;
    for (const char* const name : {"dst", "local", "ifname", "dev", "table", "metric"}) {
      if (!member.contains(name)) continue;
      const Json& value = member[name];
      title += (title.empty() ? "" : " ") + (value.is_string() ? value.get<std::string>() : value.dump());
    }
    return title;
  }

  const Options& options_;
  example::Picture picture_;
  std::vector<Wirl::KernelView*> views_;
  std::vector<Kiv::Reactor> reactors_;
  std::map<Wirl::RouteKey, Json> routes_;
  std::vector<Json> rules_;
  bool shown_ = false;
};

std::optional<int> parse(int argc, char** argv, Options& options) {
  example::Options words(
      "netView", "the state of a network namespace",
      "Shows a network namespace, and then what changes in it, until Ctrl-C. The namespace may come "
      "later, and go and come back.");
  words.netNs(options.netNs);
  words.flag("--once", options.once, "ends after the first picture");
  words.flag("--json", options.json,
             "JSON, with the fields of ip -j: one document, then a line for each change");
  words.flag("--details", options.details,
             "also the kind and the counters of links, and neighbours that need no resolution");
  words.flag("--links", options.links, "only links, and what other kinds are named");
  words.flag("--addresses", options.addresses, "only addresses, likewise");
  words.flag("--routes", options.routes, "only routes, likewise");
  words.flag("--neighbors", options.neighbors, "only neighbours, likewise");
  words.flag("--nexthops", options.nextHops, "the next-hop objects");
  words.flag("--rules", options.rules, "the rules of policy routing");
  words.flag("--proxies", options.proxies, "of neighbours those that the kernel answers for");
  words.value("--dev", "NAME", "only what belongs to the link NAME", options.dev, example::Word::device);
  words.value("--table", "TABLE", "only routes of the table, a name or a number",
              [&](const std::string& text) {
                options.table = example::tableNames().numberOf(text.c_str());
                return std::string(options.table ? "" : "no such table");
              });
  words.value("--to", "PREFIX", "only routes in the prefix, and addresses and neighbours in it",
              [&](const std::string& text) {
                options.to = Wirl::IpGenPrefix::fromText(text);
                return std::string(options.to ? "" : "no prefix");
              });
  words.flag("--statistics", options.statistics, example::kStatisticsHelp);
  if (const auto status = words.parse(argc, argv)) return status;
  if (!options.links && !options.addresses && !options.routes && !options.neighbors && !options.nextHops &&
      !options.rules) {
    options.links = options.addresses = options.routes = options.neighbors = true;
  }
  return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) try {
  Options options;
  if (const auto status = parse(argc, argv, options)) return *status;
  const auto statistics = example::statisticsIf(options.statistics);
  const example::StopOnSignal signals;
  NetView view(options);
  if (!view.isShown()) Kiv::activityLoop().run();
  return options.once && !view.isShown() ? 1 : 0;
} catch (const Kiv::Exception& failure) {
  std::fprintf(stderr, "netView: %s\n", failure.what());
  return 1;
}
