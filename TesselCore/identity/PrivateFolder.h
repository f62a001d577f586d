// Folders that hold secret files. A secret goes only where no other user can
// read it, write beside it, or swap a folder on its way for one of their own:
// $XDG_RUNTIME_DIR is only a name someone set, so the folders are checked
// where they stand, each time one is used.
#pragma once

#include <QString>

namespace tessel::PrivateFolder {

// Makes `path` and every missing folder on it with mode 0700 and checks each
// folder from the root down. Every one must belong to the user or to root and
// be closed to writing by group and others; a folder of root's that everyone
// may write to (like /tmp) passes only with its sticky bit, and what lies in
// it must then be the user's own. A link counts as what it points to, and only
// when the user or root made it. Throws TesselError naming the first folder
// that fails.
void make(const QString& path);

// The refusal's words for a folder that fails the check.
QString openToOthers(const QString& folder);

} // namespace tessel::PrivateFolder
