/* A library with the wrong exports and a load-time import of the logging
   library: the export check must report all three problems for it. */
#if defined(_WIN32)
#define PROBE_EXPORT __declspec(dllexport)
#else
#define PROBE_EXPORT __attribute__((visibility("default")))
#endif

void LogInit(void);

PROBE_EXPORT int QvCreateObject(void) { return 0; }
PROBE_EXPORT int ProbeExtra(void) {
    LogInit();
    return 1;
}
