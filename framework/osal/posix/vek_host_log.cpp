// Host builds only. On a device logd keeps every priority and the level
// masks alone decide what is written; liblog on a host drops verbose and
// debug lines by default. Lowering its threshold when the library loads
// makes stderr show exactly the lines that pass the framework's masks.
#include <android/log.h>

namespace {

__attribute__((constructor)) void LetMasksDecideOnHost() {
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
}

}  // namespace
