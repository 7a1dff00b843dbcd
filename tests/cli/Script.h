// What the system answers to zniscsi in commands.txt. The functions are this test program's own: they
// take precedence over those of the shared libraries.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

// Prepares the machine below `root` by a line:
//
//   tool WORDS: STATUS > OUTPUT ! ERROR   what a command line with these words gives; of several lines
//                                         for the same words, each counts once, the last one for ever
//   tool WORDS then CHANGE                a change of the machine by each such run;
//   tool WORDS then later CHANGE          after a moment
//   open DEVICE: held | refused           what opening a device exclusively gives; otherwise it is free
//   loop DEVICE: MAJOR:MINOR              what is beneath a loop device
//   user                                  the commands run as an ordinary user
//   CHANGE                                as RecordedMachine::Change has it
void Prepare(const std::filesystem::path& root, const std::string& line);

// Forgets all answers.
void ForgetAnswers();
