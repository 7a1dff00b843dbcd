// Case files: what the host is like, what is called, and everything that must happen then.
//
//   # Statements before the first case belong to every case.
//   missing /usr/sbin/ehcmcli
//
//   # The case runs once for each "with" row; $1, $2, ... are the words of the row.
//   case another machine is refused
//   with RefreshiSCSITargetPortal "192.0.2.10"
//   with LogOnToiSCSITarget "192.0.2.10 iqn:a"
//   ask AddiSCSITargetPortal null = 0
//   os 1 4
//   call $1 $2
//   os 0 7
//   call $1 $2
//     platform test log event
//        detect
//        -1 #42 ZnISCSILinux::$1: Currently not supported for this OS.
//     = 0
//
// A statement is a line of words. A "quoted word" may contain blanks or be empty; null is a null
// pointer; @NAME is the text of the file NAME in recorded/; | is the text of the following lines that
// begin with |, including their line ends. Quoted words and such lines know the escapes \n, \r, \t and
// \\.
//
// "ask" expects the answer behind " = ", continued on lines indented by two blanks. "call" expects
// everything that happens, then the answer: the indented lines below it, or below a later call. "why"
// expects of everything the log lines of level -1. "nulls" is a "call" that is repeated with a null
// pointer in place of each argument in turn.
#pragma once

#include <optional>
#include <string>
#include <vector>

using Word = std::optional<std::string>;

struct Statement
{
    int line = 0;
    std::vector<Word> words;
    std::string expected;
};

struct Case
{
    std::string name;
    std::vector<Statement> statements; // including those that belong to every case
};

std::vector<Case> ParseCases(const std::string& text);

// Returns the text of the file `name` in this directory. The test fails if there is none.
std::string ReadFile(const std::string& name);
