// texts - answers and log texts that several commands have in common. Operators' scripts compare them.
//
// Ownership  None: texts that live as long as the program.
// Threads    Constants: any. Nothing fails.
#pragma once

namespace rtls {

inline constexpr char console[] = "CONS"; // channel of the terminal's lines in the debug stream

// Answers.
inline constexpr char mac_missing[] = "MAC are missing!\n";
inline constexpr char incorrect_mac[] = "Incorrect MAC value!\n";
inline constexpr char not_in_list[] = "Node %04X not in nodes list\n"; // the short MAC
inline constexpr char command_sent[] = "Command sent successfully!\n";
inline constexpr char command_not_sent[] = "Failed to send command!\n";

// Log text; the argument is the reporting function's name.
inline constexpr char str_null_win_clients[] = "%s: null pointer to win clients!";

} // namespace rtls
