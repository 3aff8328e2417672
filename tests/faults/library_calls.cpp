#include "tests/faults/library_calls.h"

#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace fault_support {

namespace {

#if defined(__x86_64__)
constexpr std::uint32_t CALL_SLOT = R_X86_64_JUMP_SLOT;
constexpr std::uint32_t ADDRESS_SLOT = R_X86_64_GLOB_DAT;
#elif defined(__aarch64__)
constexpr std::uint32_t CALL_SLOT = R_AARCH64_JUMP_SLOT;
constexpr std::uint32_t ADDRESS_SLOT = R_AARCH64_GLOB_DAT;
#else
#error "relocations of this processor are not known here"
#endif

struct Request {
    const char* object;
    const char* symbol;
    void* replacement;
    int changed;
};

// NOLINTBEGIN(performance-no-int-to-ptr): the loader gives addresses as numbers

// The parts of a loaded object that name what it imports.
struct Imports {
    const ElfW(Sym) * symbols = nullptr;
    const char* names = nullptr;
    const ElfW(Rela) * tables[2] = {};  // of addresses, of calls
    std::size_t bytes[2] = {};
};

Imports imports_of(const ElfW(Dyn) * entry) {
    Imports imports;
    for (; entry->d_tag != DT_NULL; ++entry) {
        void* const address = reinterpret_cast<void*>(entry->d_un.d_ptr);
        switch (entry->d_tag) {
            case DT_SYMTAB:
                imports.symbols = static_cast<const ElfW(Sym)*>(address);
                break;
            case DT_STRTAB:
                imports.names = static_cast<const char*>(address);
                break;
            case DT_RELA:
                imports.tables[0] = static_cast<const ElfW(Rela)*>(address);
                break;
            case DT_RELASZ:
                imports.bytes[0] = entry->d_un.d_val;
                break;
            case DT_JMPREL:
                imports.tables[1] = static_cast<const ElfW(Rela)*>(address);
                break;
            case DT_PLTRELSZ:
                imports.bytes[1] = entry->d_un.d_val;
                break;
            default:
                break;
        }
    }
    return imports;
}

// Writes to memory that the loader may have made read-only once it was done.
void overwrite(std::uintptr_t slot, void* value) {
    const auto page_bytes = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    void* const page = reinterpret_cast<void*>(slot & ~(page_bytes - 1));
    mprotect(page, page_bytes, PROT_READ | PROT_WRITE);
    *reinterpret_cast<void**>(slot) = value;
}

int redirect_in(dl_phdr_info* object, std::size_t /*size*/, void* data) {
    auto& request = *static_cast<Request*>(data);
    const bool is_program = object->dlpi_name[0] == '\0';
    if (is_program ? request.object[0] != '\0'
                   : request.object[0] == '\0' ||
                         std::strstr(object->dlpi_name, request.object) == nullptr) {
        return 0;
    }
    for (int i = 0; i < object->dlpi_phnum; ++i) {
        if (object->dlpi_phdr[i].p_type != PT_DYNAMIC) {
            continue;
        }
        const Imports imports = imports_of(
            reinterpret_cast<const ElfW(Dyn)*>(object->dlpi_addr + object->dlpi_phdr[i].p_vaddr));
        if (imports.symbols == nullptr || imports.names == nullptr) {
            continue;
        }
        for (int t = 0; t < 2; ++t) {
            const std::size_t count = imports.bytes[t] / sizeof(ElfW(Rela));
            for (std::size_t r = 0; r < count; ++r) {
                const ElfW(Rela)& slot = imports.tables[t][r];
                const auto type = static_cast<std::uint32_t>(ELF64_R_TYPE(slot.r_info));
                const ElfW(Sym)& symbol = imports.symbols[ELF64_R_SYM(slot.r_info)];
                if ((type == CALL_SLOT || type == ADDRESS_SLOT) &&
                    std::strcmp(imports.names + symbol.st_name, request.symbol) == 0) {
                    overwrite(object->dlpi_addr + slot.r_offset, request.replacement);
                    ++request.changed;
                }
            }
        }
    }
    return 0;
}

// NOLINTEND(performance-no-int-to-ptr)

}  // namespace

int redirect_calls(const char* object, const char* symbol, void* replacement) {
    Request request = {object, symbol, replacement, 0};
    dl_iterate_phdr(redirect_in, &request);
    return request.changed;
}

}  // namespace fault_support
