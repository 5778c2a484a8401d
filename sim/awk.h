/* SPDX-License-Identifier: Apache-2.0 */
// The device's awk, for the programs the system hands it: one action
// ({ ... }) of assignments and calls, run once per input line.
//
// Why in-process rather than the host's awk: the host's default awk has
// none of the bit functions the register pipelines call, and the awks that
// have them convert out-of-range numbers to integers as their machine's
// floating-point unit does, so on this host they would not compute what
// the device computes. The evaluator below fixes the device's reading:
// - Numbers are doubles. A field that reads as a number is one, read as
//   C's strtod reads it (so "0x80000000" is 2147483648), and keeps its own
//   text where text is wanted; program constants
//   may be decimal or 0x-hexadecimal.
// - `^` is exponentiation (right-associative, above concatenation), never
//   exclusive or: 2147483648^0xFFFFFFFF overflows to +inf.
// - lshift, rshift, and, or take their arguments as unsigned 32-bit
//   integers (the device's unsigned long): fractions are cut, a value of
//   2^32 or more (+inf included) saturates to 0xffffffff, as the device's
//   conversion does, and a negative one wraps; shift counts use their low
//   five bits.
// - A number becomes text as an integer when it is one, else with "%.6g";
//   sprintf's integer conversions (d i o u x X c) cut the value to an
//   integer first, so "%#x" of 0 is "0", without a prefix.
// - system(cmd) runs cmd through the device's shell and gives its status.
// Anything else (patterns, other operators, other functions) is outside
// the model: the program is refused with awk's status 2.
#ifndef SWMGR_SIM_AWK_H
#define SWMGR_SIM_AWK_H

#include <functional>
#include <string>

namespace swsim {

struct AwkRun {
    std::function<int(const std::string &command)> system;
    std::string error;  // why the program was refused, when it was
};

// Runs `program` over each line of `input`; 0, or 2 when refused.
int awkRun(const std::string &program, const std::string &input, AwkRun &run);

}  // namespace swsim

#endif
