// The formats of the catalogue behind one interface.
#ifndef RVPMAP_CATALOGWRITER_H
#define RVPMAP_CATALOGWRITER_H

#include "ExtentCursor.h"
#include "Session.h"

#include <memory>
#include <optional>
#include <string>

class CatalogWriter {
  public:
    virtual ~CatalogWriter() = default;
    virtual void begin() {}
    // For every path: the file, then its runs if they are asked for, then its end. `file` is valid
    // until the end.
    virtual void beginFile(const std::string& path, const File& file,
                           const std::optional<std::string>& target) = 0;
    virtual void addExtent(const Run& run) = 0;
    virtual void endFile() = 0;
    // All paths have come, so many of them with something that could not be read.
    virtual void end(std::size_t /*failures*/) {}
};

// By the session's options. The session must outlive the writer.
std::unique_ptr<CatalogWriter> makeCatalogWriter(Session& session);

#endif
