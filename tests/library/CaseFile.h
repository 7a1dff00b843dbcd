// Files of cases: what the host is like, what is called, and all that is to happen then.
//
//   # Statements before the first case set up every case.
//   missing /usr/sbin/ehcmcli
//
//   case another host is refused
//   os 1 4
//   call RefreshiSCSITargetPortal 192.0.2.10
//   os 0 7
//   call RefreshiSCSITargetPortal "192.0.2.10"
//     platform test log event
//        detect
//        -1 #42 ZnISCSILinux::RefreshiSCSITargetPortal: Currently not supported for this OS.
//     = 0
//
// A statement is a line of words. A "quoted word" may hold blanks or nothing; null is no text at all;
// @NAME is the text of the data file NAME; | is the text of the lines below that begin with |, line
// ends included. Quoted words and such lines know the escapes \n, \r, \t and \\.
//
// Lines indented by two blanks are the transcript of the call above them, and of those calls before it
// that have none of their own: all that happens, and what the call answers ("ask" for "call": only what
// it answers).
#pragma once

#include <optional>
#include <string>
#include <vector>

using Word = std::optional<std::string>;

struct Statement
{
    int line = 0;
    std::vector<Word> words;
    std::string transcript;
};

struct Case
{
    std::string name;
    std::vector<Statement> statements; // those that set up every case included
};

std::vector<Case> ParseCases(const std::string& text);

// The data file `name`; a test that asks for one that is not there fails.
std::string ReadData(const std::string& name);
