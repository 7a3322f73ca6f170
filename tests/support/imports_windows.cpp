#include "support/imports_windows.h"

#include <windows.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace kvtest {

namespace {

template <typename T>
T* At(HMODULE module, std::size_t offset)
{
    return reinterpret_cast<T*>(reinterpret_cast<std::uint8_t*>(module) + offset);
}

// The place of an imported function's address, by the names that each imported DLL is bound with.
void** Find(HMODULE module, const char* name)
{
    const auto* dos = At<IMAGE_DOS_HEADER>(module, 0);
    const auto* headers = At<IMAGE_NT_HEADERS>(module, static_cast<std::size_t>(dos->e_lfanew));
    const IMAGE_DATA_DIRECTORY& where =
        headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (const auto* dll = At<IMAGE_IMPORT_DESCRIPTOR>(module, where.VirtualAddress); dll->Name != 0;
         ++dll) {
        const auto* names = At<IMAGE_THUNK_DATA>(module, dll->OriginalFirstThunk);
        auto* addresses = At<IMAGE_THUNK_DATA>(module, dll->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++addresses) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal))
                continue;
            const auto* import = At<IMAGE_IMPORT_BY_NAME>(module, names->u1.AddressOfData);
            if (std::strcmp(import->Name, name) == 0)
                return reinterpret_cast<void**>(&addresses->u1.Function);
        }
    }
    return nullptr;
}

}  // namespace

void* ReplaceImport(const char* module, const char* name, void* function)
{
    void** place = Find(GetModuleHandleA(module), name);
    DWORD before = 0;
    if (!place || !VirtualProtect(place, sizeof(*place), PAGE_READWRITE, &before))
        throw std::runtime_error(std::string("nobody imports ") + name);
    void* const was = *place;
    *place = function;
    VirtualProtect(place, sizeof(*place), before, &before);
    return was;
}

}  // namespace kvtest
