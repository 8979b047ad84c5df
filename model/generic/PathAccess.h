// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Generic::PathAccess: the tree of a running system by paths of names, for tools that
// have nothing but text. Activity thread only.
//
//   config/globalEnabled                    an attribute of a root
//   config/vlanEnabled[10]                  an element of a collection
//   status/intfStatus[eth1]/disabledUntil   an attribute of an element
//   packetCounter/counterIntf[eth1]/tx      a field of a value
//
// A leading '/' is allowed. Keys stand in brackets, interfaces by their names; behind a backslash
// any byte stands for itself, which ']' and '\' need, and '/' gets when a path is printed.
//
// The roots are the caller's; each is opened anew for each call, so that one that ends is no longer
// found. What a root's adapter refuses because it is const stays refused below it.
//
// Errors: PathError for what is wrong with the path, or with the names and the number of a call's
// arguments; Vex::RangeException for a key, a value or an argument that is none; the exceptions of
// Vex::GenericIf for what an attribute does not let itself be done to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "runtime/vex/GenericIf.h"

namespace Ringward::Generic {

// A path that leads nowhere. what() says what is not there, where, and what may have been meant.
class PathError : public Vex::Exception {
 public:
  PathError(std::string_view path, std::size_t position, std::string text)
      : Exception(std::move(text)), path_(path), position_(position) {}
  const std::string& path() const noexcept { return path_; }
  // Of the first byte in the path that is wrong.
  std::size_t position() const noexcept { return position_; }

 private:
  std::string path_;
  std::size_t position_;
};

class PathAccess {
 public:
  // Longer paths and texts are refused, and so are more names in a path.
  static constexpr std::size_t kMaxPath = 4096;
  static constexpr std::size_t kMaxText = 65536;
  static constexpr std::size_t kMaxDepth = 32;

  struct Root {
    std::string name;
    std::function<Vex::Ptr<Vex::GenericIf>()> open;  // null: not there now
  };
  explicit PathAccess(std::vector<Root> roots) : roots_(std::move(roots)) {}

  // A node of the tree as a tool sees it.
  struct Node {
    std::string name;  // of the root or attribute; the key of an element, as in a path
    std::string kind;  // "root", "element" or one of Vex::kindName()
    std::string type;  // of what get() shows; the result of a function
    // What get() shows, or in brackets why it cannot; empty for collections; the signatures of a
    // function.
    std::string text;
    bool writable;          // whether set(), or call() for a function, is let
    std::uint32_t members;  // of a collection
  };

  // The text of a value; of an object, its type and name, or "null".
  std::string get(std::string_view path) const;
  // Reads `text` by the attribute's type and sets it. For an owned object the text is its name; an
  // element that is an object is made if it is not there.
  void set(std::string_view path, std::string_view text);
  // Takes an element or an owned object away; nothing happens if there is none.
  void del(std::string_view path);
  // What stands below a path: the roots for an empty one, the attributes of an object, the elements
  // of a collection; the node itself for what has nothing below it. At most `limit`, beginning
  // behind the name or key `after`.
  std::vector<Node> ls(std::string_view path, std::size_t limit, std::string_view after = {}) const;
  // Calls a function of an object and answers its result, empty for none. An argument without a
  // name stands for the first one not given yet.
  std::string call(std::string_view path, std::string_view function,
                   const std::vector<std::pair<std::string, std::string>>& arguments);

 private:
  struct Step;
  struct Target;

  static std::vector<Step> stepsOf(std::string_view path);
  Vex::Ptr<Vex::GenericIf> rootOf(std::string_view path, const Step& step) const;
  Target target(std::string_view path) const;
  static Vex::Ptr<Vex::GenericIf> object(std::string_view path, const Target& target);
  [[noreturn]] static void throwNotThere(std::string_view path, const Target& target);
  static Node node(Vex::GenericIf& owner, const Vex::VexType::Attribute& attribute);
  static void fill(Node& made, Vex::GenericIf& owner, const Vex::VexType::Attribute& attribute);
  static std::vector<Node> elements(const Target& target, std::size_t limit,
                                    std::string_view after);

  std::vector<Root> roots_;
};

// A key as it stands between the brackets of a path.
std::string quotedKey(std::string_view key);
// The opposite: the key that a person knows, of one that ls() has named.
std::string unquotedKey(std::string_view quoted);

}  // namespace Ringward::Generic
