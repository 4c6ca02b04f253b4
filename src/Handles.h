#ifndef VANTRY_SRC_HANDLES_H
#define VANTRY_SRC_HANDLES_H

#include <sqlite3.h>

#include <memory>

namespace vantry {

struct StatementFinalizer {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using StatementHandle = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

}  // namespace vantry

#endif
