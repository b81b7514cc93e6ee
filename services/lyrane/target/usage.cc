/* The usage message. It lies in a section of its own in the executable, where the usage utility
 * finds it and puts the command's name in the place of %C; the service never prints it. */

extern const char usage_message[];

__attribute__((section(".usage"), used)) const char usage_message[] =
    "%C - Veloran Tovrin2 Multimedia Player\n"
    "\n"
    "%C\t[options]\n"
    "\n"
    "Options:\n"
    " -b            Don't run in background.\n"
    " -c            Configuration file [default: /etc/lyrane.conf]\n"
    " -s service    Service identifier name.provider [default: lyrane.sys]\n"
    " -l            Enalbe lastmode audio\n"
    " -P prio       Application priority.\n"
    " -U u[:g,...]  Downgrade from root to the specified user (and, optionally, groups).\n"
    " -v            Be verbose. Increase the number of v's to increase verbosity.\n"
    "\n"
    "SIGUSR1 can be used to bump the verbosity.\n"
    "\n"
    "If lastmode audio is enalbed, the default timeout is 5 seconds and \n"
    "the default enabled device is the hard drive. To overwrite it, please edit\n"
    "the specified lyrane config file. \n";
