// The one door through which the library reads its environment variables.
//
// A process started with more privilege than the user who started it
// (set-user-ID, set-group-ID, file capabilities: the kernel's AT_SECURE) must
// not let that user steer it through the environment. In such a process the
// variables that name a file, a directory or a log route are ignored when
// their value came with the environment the program was started with:
//   SVC_FATAL, SVC_ERROR, SVC_WARNING, SVC_NOTICE, SVC_NOTICE_VERBOSE,
//   SVC_<COMPONENT>_DBG, KP_SVC_ROUTING_FILE, NLSPATH, QVNLZDIR;
//   TZ when it names a file outside the system's zone directory (an absolute
//   path elsewhere, or any name holding ".."); a rule string or a zone name
//   stays allowed;
//   LANG, LC_ALL and LC_MESSAGES when they hold a '/' or are "..", since
//   they become directory names.
// Values the program itself put into its environment (setenv, putenv) are
// its own settings and are used as in any process. The first read of any
// variable in such a process writes one line to standard error naming every
// variable that is ignored. Everything else reads as getenv does.
//
// Thread safety: as getenv (the environment must not change concurrently).
#ifndef ZAR_PLATFORM_SECENV_H_
#define ZAR_PLATFORM_SECENV_H_

namespace zar::env {

// The value of name, or null when it is unset or must not be trusted.
const char* get(const char* name);

// True when the process was started with elevated privilege (AT_SECURE).
bool privileged();

// True when a privileged process ignores name=value from its start-up
// environment (the rule above).
bool refused(const char* name, const char* value);

}  // namespace zar::env

#endif  // ZAR_PLATFORM_SECENV_H_
