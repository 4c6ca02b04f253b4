// The rows of a query.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Command.h"
#include "ContentHelper.h"
#include "Database.h"
#include "Rows.h"
#include "Terminal.h"
#include "Text.h"
#include "TilesDAO.h"
#include "TilesModel.h"

namespace {

struct Options {
    std::string database, table, uri, columns, where, order;
    std::vector<std::string> arguments;
    std::string format = FORMAT_NAMES[0];
    long long limit = -1;
    bool types = false;
};

constexpr const char* EXAMPLES =
    R"text(Without a table, the database's tables are listed. A condition has "?" where arguments belong; they
are bound as text, in the order of the --arg options, and a column with a type compares them as what it is.

Examples:
  vantryctl query px_tiles.db
  vantryctl query px_tiles.db tiles --columns title,subtitle --order title
  vantryctl query px_tiles.db tiles --where "section_id = ? AND title > ?" --arg 4 --arg M
  vantryctl query px_tiles.db tiles --columns "count(*)" --format csv
  vantryctl query --uri content://com.brenwick.tiles/accelerators --format json

Exit codes: 0 all rows were written, 1 the database cannot be read or the result is incomplete, 2 wrong use.)text";

// The table that a content URI names, and the database where the device keeps it.
void ResolveUri(Options& options) {
    const std::string scheme = "content://";
    const std::string tiles = scheme + TilesModel::AUTHORITY + "/";
    const bool isUri = options.uri.compare(0, scheme.size(), scheme) == 0;
    options.table = CContentHelper::GetTableNameFromUri(options.uri);
    if (!isUri || options.table.empty() || options.uri.find('/', scheme.size()) == std::string::npos) {
        throw CFailure("--uri wants a content URI such as " + TilesModel::Tiles::CONTENT_URI, WRONG_USE);
    }
    if (options.database.empty()) {
        if (options.uri.compare(0, tiles.size(), tiles) != 0) {
            throw CFailure("only the database of " + tiles + " has a known place; name the database of " +
                               Visible(options.uri),
                           WRONG_USE);
        }
        options.database = CTilesDAO::TILES_DB_PATH + CTilesDAO::TILES_DB_NAME;
    }
}

std::string Select(CLook& look, Options& options) {
    if (options.table.empty()) {
        if (!options.columns.empty() || !options.where.empty() || !options.order.empty()) {
            throw CFailure("a table is missing: vantryctl query DATABASE lists them", WRONG_USE);
        }
        return "SELECT name, type, (SELECT count(*) FROM pragma_table_info(sqlite_master.name)) AS columns "
               "FROM sqlite_master WHERE type IN ('table', 'view') AND name NOT LIKE 'sqlite^_%' ESCAPE '^' "
               "ORDER BY name";
    }
    // The library would end the order at its semicolon and say nothing.
    if (options.order.find(';') != std::string::npos) {
        throw CFailure("--order holds a semicolon: one statement is run", WRONG_USE);
    }
    std::vector<std::string> columns;
    if (!options.columns.empty()) {
        columns.push_back(options.columns);
    }
    std::string sql =
        look.Connection().CreateSelectStatement(Quoted(options.table), columns, options.where, options.order);
    if (options.limit >= 0) {
        sql += " LIMIT " + std::to_string(options.limit);
    }
    return sql;
}

// The library takes a pair of quotes off what it binds; these arguments are meant as they stand.
std::vector<std::string> Arguments(const Options& options) {
    std::vector<std::string> arguments;
    for (const std::string& argument : options.arguments) {
        const bool quoted = !argument.empty() && argument.front() == '\'' && argument.back() == '\'';
        arguments.push_back(quoted ? "'" + argument + "'" : argument);
    }
    return arguments;
}

int Run(Options options) {
    if (options.uri.empty() && options.database.empty()) {
        throw CFailure("DATABASE or --uri is missing", WRONG_USE);
    }
    if (!options.uri.empty()) {
        ResolveUri(options);
    }
    CLook look(options.database);
    look.Require();
    const std::string sql = Select(look, options);
    const auto cursor = look.Select(sql, Arguments(options));
    if (cursor->TextLength() < sql.size()) {
        throw CFailure("a semicolon ends the statement too early: one statement is run", WRONG_USE);
    }
    if (cursor->Placeholders() != static_cast<int>(options.arguments.size())) {
        throw CFailure("the condition has " +
                           Count(static_cast<std::uint64_t>(cursor->Placeholders()), "placeholder") +
                           ", and there are " + Count(options.arguments.size(), "argument"),
                       WRONG_USE);
    }
    const Format format = FormatByName(options.format);
    const std::vector<Column> columns = cursor->Columns();
    const auto writer = IRowWriter::Make(format, columns, options.types);
    CTypeCount types;
    std::uint64_t rows = 0;
    int code = 0;
    {
        CProgress progress("reading");
        progress.Watch(cursor->Handle());
        while (std::ferror(stdout) == 0 && (code = cursor->Step()) == 0) {
            Row row = ReadRow(*cursor);
            if (options.types) {
                types.Add(row);
            }
            ++rows;
            progress.AddRow();
            if (IsTerminal(fileno(stdout))) {
                progress.Clear();
            }
            writer->Write(std::move(row));
        }
    }
    const std::string note = writer->End();
    if (options.types) {
        for (const std::string& line : types.Lines(columns)) {
            WriteTrailer(format, line);
        }
    }
    if (!note.empty()) {
        WriteTrailer(format, note);
    }
    WriteTrailer(format, Count(rows, options.table.empty() ? "table" : "row"));
    if (code != RESULT_END && std::ferror(stdout) == 0) {
        throw CFailure("the result is incomplete: after " + Count(rows, "row") +
                       " the reading ended with code " + std::to_string(code) + ", " +
                       Visible(cursor->Failure(code)));
    }
    return GOOD;
}

}  // namespace

void AddQuery(CLI::App& app, int& code) {
    CLI::App* const command = app.add_subcommand("query", "Shows the rows of a table");
    const auto options = std::make_shared<Options>();
    command->add_option("DATABASE", options->database, "The database file")->type_name("");
    CLI::Option* const table =
        command->add_option("TABLE", options->table, "The table or view; without it, all are listed")
            ->type_name("");
    command
        ->add_option("--uri", options->uri,
                     "A content URI, whose last part names the table; without DATABASE, the device's own")
        ->type_name("URI")
        ->excludes(table);
    command->add_option("--columns", options->columns, "The columns, with commas; any SQL expressions")
        ->type_name("A,B");
    command->add_option("--where", options->where, "The condition")->type_name("SQL");
    command->add_option("--arg", options->arguments, "A value for the next \"?\" of the condition")
        ->type_name("VALUE")
        ->expected(1)
        ->allow_extra_args(false)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    command->add_option("--order", options->order, "The order")->type_name("SQL");
    command->add_option("--limit", options->limit, "So many rows at most")
        ->type_name("N")
        ->check(CLI::NonNegativeNumber);
    command->add_option("--format", options->format, "table (the default), csv, json or lines")
        ->type_name("NAME")
        ->check(CLI::IsMember(FORMAT_NAMES));
    command->add_flag("--types", options->types,
                      "Also the declared types, and how often each type is stored");
    command->footer(EXAMPLES);
    command->callback([options, &code] { code = Run(*options); });
}
