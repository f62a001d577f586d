#include "audio/Codec.h"

#include "errors/Failures.h"

#include <dlfcn.h>

#include <filesystem>
#include <mutex>

using namespace Qt::StringLiterals;

namespace tessel {

namespace {

constexpr const char* moduleName = "libtessel-codec.so";

// Beside the program (a build tree), else where an install puts it relative to
// the program (bin/../lib/velmora-tessel): found from the program's own place,
// an install works under any prefix, unpacked anywhere or in an AppDir.
std::vector<std::filesystem::path> candidates() {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return {};
    }
    const auto directory = program.parent_path();
    return {directory / moduleName,
            directory.parent_path() / "lib" / "velmora-tessel" / moduleName};
}

// Libraries FFmpeg brings whose start-up allocates what they never give back
// (pixman's table of implementations, 12 KB; libgomp's settings): loaded
// afresh for each call they would leak each time. They stay once loaded.
void keepLeakyLibraries() {
    static std::once_flag once;
    std::call_once(once, [] {
        for (const char* name : {"libpixman-1.so.0", "libgomp.so.1"}) {
            dlopen(name, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
        }
    });
}

} // namespace

std::shared_ptr<CodecModule> CodecModule::acquire() {
    static std::mutex mutex;
    static std::weak_ptr<CodecModule> loaded;
    std::lock_guard lock(mutex);
    if (auto module = loaded.lock()) {
        return module;
    }
    keepLeakyLibraries();
    QString reasons;
    for (const auto& path : candidates()) {
        if (!std::filesystem::exists(path)) {
            continue;
        }
        void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            reasons += u" "_s + QString::fromLocal8Bit(dlerror());
            continue;
        }
        using Entry = decltype(&tessel_codec_factory);
        const auto entry = reinterpret_cast<Entry>(dlsym(handle, "tessel_codec_factory"));
        if (!entry) {
            reasons += u" "_s + QString::fromStdString(path.string()) + u" has no entry point."_s;
            dlclose(handle);
            continue;
        }
        auto module = std::make_shared<CodecModule>(handle, *entry());
        loaded = module;
        return module;
    }
    throw TesselError(u"The audio encoder (%1) could not be loaded — reinstall Velmora, then "
                      u"start a new call.%2"_s.arg(QString::fromLatin1(moduleName), reasons));
}

CodecModule::~CodecModule() {
    dlclose(handle_);
}

std::unique_ptr<AudioEncoder> CodecModule::encoder() const {
    return std::unique_ptr<AudioEncoder>(factory_.makeEncoder());
}

std::unique_ptr<AudioConverter> CodecModule::converter() const {
    return std::unique_ptr<AudioConverter>(factory_.makeConverter());
}

} // namespace tessel
