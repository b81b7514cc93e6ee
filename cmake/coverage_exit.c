/* Builds that measure coverage count what processes did that end without destructors, too: every
 * program and library is linked with --wrap=_exit and with this. */

void __gcov_dump(void);
_Noreturn void __real__exit(int status);
_Noreturn void __wrap__exit(int status);

__attribute__((visibility("hidden"))) _Noreturn void __wrap__exit(int status) {
    __gcov_dump();
    __real__exit(status);
}
