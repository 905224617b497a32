// The device's crash reports: a symbolised stack when a fatal signal arrives, then the signal's
// default action.
#pragma once

extern "C" {

// The name under which reports are written; `name` is copied. Called first.
void backtrace_set_program_name(const char* name);

// Opens the console that reports go to (standard error on stock Linux).
void backtrace_open_console();

// Installs the handlers of the fatal signals for the whole process.
void backtrace_install_signal_handlers();

}  // extern "C"
