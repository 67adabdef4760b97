/* Run-time defaults of the address-sanitizer runtime for every program of
 * the asan build; ASAN_OPTIONS given at run time still override them.
 *
 * intercept_tls_get_addr=0: up to LLVM 16 the runtime's __tls_get_addr hook
 * takes a dynamic TLS block whose address is 16 bytes past a page boundary
 * for a glibc-2.19 block with a header, and reads the two words before it as
 * that block's bounds. Since glibc 2.25 there is no header, so a block that
 * lands there by chance gives LeakSanitizer a garbage range, and its tracer
 * crashes at exit ("Tracer caught signal 11") after a run that was clean. The
 * hook only adds dynamic TLS to what the leak check scans; static TLS and the
 * threads' stacks are still scanned. */
// The runtime's hook has this name. NOLINTNEXTLINE(bugprone-reserved-identifier)
const char* __asan_default_options(void);
// NOLINTNEXTLINE(bugprone-reserved-identifier)
const char* __asan_default_options(void) { return "intercept_tls_get_addr=0"; }
