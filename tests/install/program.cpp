// A program as others write it: opens a database in the directory that it is given, inserts a row through a bundle
// and prints what it selects.
#include <SQLiteCursor.h>
#include <TilesModel.h>
#include <VantryConnection.h>
#include <bundle.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    CVantryConnection connection(std::string(argv[1]) + "/", "tiles.db", 6);
    std::string error;
    if (connection.OpenOperation() != 0 ||
        connection.ExcuteSQL("CREATE TABLE sections (_id INTEGER PRIMARY KEY, title TEXT)", error) != 0) {
        std::cerr << "no database: " << error << "\n";
        return 1;
    }
    bundle* columns = bundle_create();
    bundle_add_str(columns, TilesModel::Sections::_ID.c_str(), "7");
    bundle_add_str(columns, TilesModel::Sections::SECTION_TITLE.c_str(), "Cinema");
    const int inserted = connection.InsertRequest("sections", columns);
    bundle_free(columns);
    if (inserted != 0) {
        std::cerr << "no row: " << inserted << "\n";
        return 1;
    }
    const std::shared_ptr<ISQLiteCursor> cursor =
        connection.SelectRequest("sections", {}, "title = ?", std::vector<std::string>{"Cinema"}, "", "");
    if (!cursor) {
        return 1;
    }
    while (cursor->MoveNextStep() == 0) {
        long long id = 0;
        std::string title;
        cursor->GetInteger64Data(0, id);
        cursor->GetStringData(1, title);
        std::cout << id << "|" << title << "\n";
    }
    // What a program reaches besides the calls: the classes' identity, and the constants by address.
    const int* const limit = &CSQLiteCursor::MAX_DB_CACHE_SIZE;
    std::cout << (std::dynamic_pointer_cast<CSQLiteCursor>(cursor) != nullptr) << "|" << *limit << "|"
              << CVantryConnection::CONFLICT_VALUES[5] << "\n";
    return connection.CloseDB();
}
