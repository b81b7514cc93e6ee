/* Loads lyrane-gst.so from the folder of the library that this file is linked into. */
#include "gst_loader.h"

#include <cstdio>
#include <string>

#include <dlfcn.h>

#include <veloran/lock.h>

static vel_mutex loader_lock;
static const gst_player_api* loaded_table VEL_GUARDED_BY(loader_lock);
static bool failure_told VEL_GUARDED_BY(loader_lock);

/* Path of the module: beside the library that holds this function. */
static std::string module_path() {
    Dl_info self = {};
    std::string path;
    if (dladdr(reinterpret_cast<void*>(&module_path), &self) != 0 && self.dli_fname != nullptr) {
        path = self.dli_fname;
    }
    const size_t slash = path.rfind('/');
    path.erase(slash == std::string::npos ? 0 : slash + 1);
    return path + "lyrane-gst.so";
}

/* Opens the module; null with the reason in `why`. It is linked never to be unloaded, because
 * threads of its libraries outlive every player. */
static const gst_player_api* open_module(std::string* why) {
    void* module = dlopen(module_path().c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        const char* text = dlerror(); // NOLINT(concurrency-mt-unsafe): a thread's own in glibc
        *why = text != nullptr ? text : "unknown error";
        return nullptr;
    }
    const auto* table = static_cast<const gst_player_api*>(dlsym(module, "lyrane_gst_player"));
    if (table == nullptr || table->abi != GST_PLAYER_ABI) {
        *why = "lyrane-gst.so does not belong to this plug-in";
        dlclose(module);
        return nullptr;
    }
    return table;
}

const gst_player_api* gst_loader_get(void (*log)(int32_t, const char*) noexcept) noexcept {
    vel_lock_guard hold(loader_lock);
    if (loaded_table != nullptr) {
        return loaded_table;
    }
    try {
        std::string why;
        loaded_table = open_module(&why);
        if (loaded_table == nullptr && !failure_told) {
            failure_told = true;
            log(3, ("cannot play: " + why).c_str());
        }
    } catch (...) {
        return nullptr;
    }
    return loaded_table;
}

const gst_player_api* gst_loader_loaded() noexcept {
    vel_lock_guard hold(loader_lock);
    return loaded_table;
}
