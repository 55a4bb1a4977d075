// One visit of every path of a volume: the root first, then everything below it, depth first.
#ifndef RVPMAP_FILEVISIT_H
#define RVPMAP_FILEVISIT_H

#include "Path.h"
#include "Progress.h"
#include "TreeWalk.h"

// Calls `visit(path, file)` for each. What it throws as a ToolError, and whatever cannot be read
// or opened, is added to the failures, and the visit goes on.
template <typename Visit>
void visitEveryFile(Volume& volume, const char* title, Failures& failures, Visit visit) {
    Progress progress(title, Progress::Unit::FILES, volume.filesInUse());
    const auto attempt = [&](const std::string& path, File& file) {
        try {
            visit(path, file);
        } catch (const WriteError&) {
            throw;
        } catch (const ToolError& error) {
            failures.add(path, error.what());
        }
        progress.advance(1);
    };
    FoundFile root = findFile(volume, "/");
    attempt(root.path, root.file);
    TreeWalk walk(std::move(root.file), root.path, TreeWalk::Open::ALL, failures);
    for (auto step = walk.next(); step != TreeWalk::Step::END; step = walk.next()) {
        if (step == TreeWalk::Step::ENTRY) {
            attempt(walk.path(), walk.file());
        }
    }
}

#endif
