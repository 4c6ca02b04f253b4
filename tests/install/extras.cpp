// A program that uses every companion of VantryExtras.h, in any standard, with exceptions and without.
#include <VantryExtras.h>
// The platform's own header may come after it.
#include <bundle.h>

#include <iostream>
#include <utility>

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    CVantryConnection connection(std::string(argv[1]) + "/", "films.db", 6);
    std::string error;
    if (connection.OpenOperation() != 0 ||
        connection.ExcuteSQL("CREATE TABLE films (title TEXT, year INTEGER, rating REAL)", error) != 0) {
        return 1;
    }
    CTransactionScope transaction(connection);
    CBundle made;
    made.Put("title", "The General");
    made.Put(std::string("year"), 1926U);
    made.Put("rating", 8.5F);
    const CBundle film(std::move(made));
    if (connection.InsertRequest("films", film.Get()) != 0) {
        return 1;
    }
    CBulkInsert films(transaction, "films", {"title", "year", "rating"});
    if (films.Insert(std::string("Sherlock Jr."), 1924LL, 8.0) != 0 || films.Set(0, "'") != 0 ||
        films.Set(1, true) != 0 || films.Insert() != 0 ||
        films.Insert("Safety Last!", nullptr, nullptr) != 0 || !transaction.IsActive() ||
        transaction.Commit() != 0) {
        return 1;
    }
    CRows rows(connection.SelectRequest("films", {}, "", "", false));
    for (auto row : rows) {
        std::cout << row.Get<std::string>(0).ValueOr("?") << "|" << row.Get<int>("year").ValueOr(-1) << "|"
                  << row.Get<double>(std::string("rating")).ValueOr(0) << "|" << row.IsNull(1)
                  << row.Get<bool>(1).HasValue() << row.Get<unsigned long long>(1).HasValue()
                  << row.Get<unsigned char>(1).HasValue() << row.Get<std::vector<unsigned char>>(0).HasValue()
                  << "\n";
    }
    return rows.Result() == -34 && rows.IsAtEnd() ? 0 : 1;
}
