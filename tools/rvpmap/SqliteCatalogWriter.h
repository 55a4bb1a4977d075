// The catalogue as an SQLite database; docs/catalogue.md describes its tables.
#ifndef RVPMAP_SQLITECATALOGWRITER_H
#define RVPMAP_SQLITECATALOGWRITER_H

#include "CatalogWriter.h"

// Writes to the output file of the session's options, which appears with the end of the catalogue.
// Signals are noted from now on and end the work with Interrupted.
std::unique_ptr<CatalogWriter> makeSqliteCatalogWriter(Session& session);

#endif
