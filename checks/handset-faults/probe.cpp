// One probe program for every fault of the handset link (see CMakeLists.txt); ZV_FAULT_NONE breaks no
// rule of the API-23 loader.
#include <stdio.h>
#include <stddef.h>

#if defined(ZV_FAULT_LATE_CALL)
extern "C" int getentropy(void *buffer, size_t length);  // API 28; the API-23 headers do not declare it
#elif defined(ZV_FAULT_DEPRECATED)
extern "C" void __system_property_wait_any(void);
#elif defined(ZV_FAULT_EXTRA_LIBRARY)
extern "C" int zv_extra(void);
#endif

thread_local int calls;

int main() {
    ++calls;
#if defined(ZV_FAULT_LATE_CALL)
    char byte;
    return getentropy(&byte, 1);
#elif defined(ZV_FAULT_DEPRECATED)
    __system_property_wait_any();
#elif defined(ZV_FAULT_EXTRA_LIBRARY)
    return zv_extra();
#elif defined(ZV_FAULT_COPY)
    return stdout == nullptr;
#endif
    return puts("probe") < 0 ? 1 : calls - 1;
}
