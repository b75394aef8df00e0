#include "mqtt_library.h"

#include <dlfcn.h>

namespace {

constexpr const char *kLibrary = "libmosquitto.so.1";

bool load(MosquittoApi &api, std::string &why) {
    void *library = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
    if (!library) return why = dlerror(), false;
#define HOSTRIX_MOSQUITTO_LOAD(name)                                        \
    api.name = reinterpret_cast<decltype(api.name)>(dlsym(library, #name)); \
    if (!api.name) return why = std::string("no " #name " in ") + kLibrary, false;
    HOSTRIX_MOSQUITTO_FUNCTIONS(HOSTRIX_MOSQUITTO_LOAD)
#undef HOSTRIX_MOSQUITTO_LOAD
    if (api.mosquitto_lib_init() != MOSQ_ERR_SUCCESS) return why = "cannot initialise it", false;
    return true;
}

}  // namespace

const MosquittoApi *loadMosquitto(std::string &why) {
    static MosquittoApi api;
    static std::string failure;
    static const bool loaded = load(api, failure);
    if (!loaded) why = failure;
    return loaded ? &api : nullptr;
}
