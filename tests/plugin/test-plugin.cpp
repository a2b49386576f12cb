// Loaded by test-dll-loader: a function and a data symbol to look up.
extern "C" __attribute__((visibility("default"))) int plexa_test_plugin_add(int a, int b) {
    return a + b;
}

// extern: a const object would otherwise stay inside this file.
extern "C" __attribute__((visibility("default"))) char const plexa_test_plugin_name[] = "test plugin";
