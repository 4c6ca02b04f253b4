// A provider and a consumer for the tests of vantryctl:
//   stored store DATABASE TABLE KEY  stores a table, and prints the result's name and size
//   stored fetch NAME SIZE           fetches a result, and prints its number of rows

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "SharedQueryObject.h"
#include "VantryConnection.h"

int main(int count, char** values) {
    if (count == 5 && std::strcmp(values[1], "store") == 0) {
        CVantryConnection connection("", values[2], 1);
        if (connection.OpenOperation() != 0) {
            return 1;
        }
        const auto cursor = connection.SelectRequest(values[3], {}, "", "");
        std::string name;
        int size = 0;
        if (ISharedQueryObject::StoreCursor(cursor, values[4], name, size) != 0) {
            return 1;
        }
        std::printf("%s %d\n", name.c_str(), size);
        return 0;
    }
    if (count == 4 && std::strcmp(values[1], "fetch") == 0) {
        const auto cursor =
            ISharedQueryObject::GetCursor(values[2], static_cast<int>(std::strtol(values[3], nullptr, 10)));
        std::printf("%d\n", cursor ? cursor->GetNumbersOfRows() : -1);
        return cursor ? 0 : 1;
    }
    return 2;
}
