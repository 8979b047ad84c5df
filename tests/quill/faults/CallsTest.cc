// SPDX-License-Identifier: Apache-2.0
//
// The list of the calls that fail is the list of the calls that there are.
#include <gtest/gtest.h>
#include <stdio.h>

#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>

namespace QuillTest {

namespace {

using Names = std::set<std::string>;

Names listedCalls() {
  Names names;
  std::ifstream file(QUILL_FAULT_CALLS);
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string word;
    words >> word;
    if (word == "-") words >> word;
    if (!word.empty() && word != "#") names.insert(word);
  }
  return names;
}

// What the libraries take from the C library: neither C++ names nor what the compiler adds.
Names takenCalls() {
  Names names;
  const std::string command = std::string("nm -u ") + QUILL_FAULT_LIBRARIES;
  const std::unique_ptr<FILE, int (*)(FILE*)> output{popen(command.c_str(), "r"), &pclose};
  std::array<char, 4096> line{};
  while (fgets(line.data(), static_cast<int>(line.size()), output.get()) != nullptr) {
    std::istringstream words(line.data());
    std::string kind;
    std::string name;
    words >> kind >> name;
    if (kind != "U" || name.starts_with('_')) continue;
    names.insert(name);
  }
  return names;
}

}  // namespace

TEST(FaultCalls, EveryFunctionOfTheCLibraryThatIsUsedIsOnTheList) {
  const Names listed = listedCalls();
  const Names taken = takenCalls();
  EXPECT_GT(taken.size(), 40U);
  for (const std::string& name : taken) {
    EXPECT_TRUE(listed.contains(name)) << name << " is not in calls.txt";
  }
}

}  // namespace QuillTest
