// A library in which symbols are found as in the JVM's: one is exported, the other is in its full table
// alone.
extern char heap asm("_ZN8Universe14_collectedHeapE");
extern char always asm("_ZN23JvmtiManageCapabilities19always_capabilitiesE");

char heap;
__attribute__((visibility("hidden"))) char always;

extern "C" char *WhereAlwaysIs() {
    return &always;
}
