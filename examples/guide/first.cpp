// [first]
#include <bundle.h>
#include <cstdio>
#include "VantryConnection.h"

int main() {
    CVantryConnection db("./", "hello.db", 6);
    std::string error, title;
    if (db.OpenOperation() != 0)
        return 1;
    db.ExcuteSQL("CREATE TABLE IF NOT EXISTS films (title TEXT)", error);
    bundle* row = bundle_create();
    bundle_add_str(row, "title", "The General");
    if (db.InsertRequest("films", row) != 0)
        return 1;
    bundle_free(row);
    auto cursor = db.SelectRequest("films", {"title"}, "", "rowid");
    while (cursor && cursor->MoveNextStep() == 0 && cursor->GetStringData(0, title) == 0)
        std::puts(title.c_str());
}
// [first]
