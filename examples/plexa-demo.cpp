// Smallest host program: reports the library version and one error text.
#include <plexa/plexa.h>

#include <cstdio>

int main() {
    if (ZNRInit() != 0) return 1;
    std::printf("plexa %s\n", ZNRGetVersion());
    ZNRString text;
    ZNRGetErrorMsg(ZNRUserError(19), &text);
    std::printf("%s\n", text.ToStdCStr().c_str());
    return 0;
}
