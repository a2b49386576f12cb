// Loaded by test-dll-loader: a function and a data symbol to look up.
#ifdef _WIN32
#define PLUGIN_EXPORT __declspec(dllexport)
#else
#define PLUGIN_EXPORT __attribute__((visibility("default")))
#endif

extern "C" PLUGIN_EXPORT int plexa_test_plugin_add(int a, int b) { return a + b; }

// extern: a const object would otherwise stay inside this file.
extern "C" PLUGIN_EXPORT char const plexa_test_plugin_name[] = "test plugin";
