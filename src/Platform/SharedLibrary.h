// A system library loaded the first time something needs it rather than when the program starts,
// so a command that never calls it does not pay for mapping and relocating it and everything it
// pulls in. Values are cheap handles to a library that stays loaded until the program ends; they
// may be used from several threads.
#pragma once
#include <expected>
#include <string>

namespace vantle {

class SharedLibrary {
  public:
    // The loader's own sentence when the library is missing or unusable.
    static std::expected<SharedLibrary, std::string> open(const char* soname);

    // Points `into` at the library's function `name`; false when the library has no such function.
    template <class F> bool bind(F*& into, const char* name) const {
        into = reinterpret_cast<F*>(symbol(name));
        return into != nullptr;
    }

    // The library's table of functions, filled by `bindAll(library, table)` (true when every one was
    // found): the loader's sentence when the library is missing, another when it lacks a function.
    // Callers keep it in a static, so it is made once, and hand it out through kept().
    template <class Table, class BindAll>
    static std::expected<Table, std::string> table(const char* soname, BindAll bindAll) {
        auto lib = open(soname);
        if (!lib) return std::unexpected(lib.error());
        Table table{};
        if (!bindAll(*lib, table))
            return std::unexpected(std::string(soname) + " lacks a function it should have");
        return table;
    }
    template <class Table>
    static std::expected<const Table*, std::string> kept(const std::expected<Table, std::string>& table) {
        if (!table) return std::unexpected(table.error());
        return &*table;
    }

  private:
    explicit SharedLibrary(void* handle) : handle_(handle) {}
    void* symbol(const char* name) const;
    void* handle_;
};

} // namespace vantle
