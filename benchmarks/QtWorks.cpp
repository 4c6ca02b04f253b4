// Qt's QSqlQuery, which caches its rows itself.
#include <QCoreApplication>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>
#include <vector>

#include "Works.h"

namespace bench {

namespace {

class QtWorks : public Works {
public:
    ~QtWorks() override {
        m_query.reset();
        const QString name = m_database.connectionName();
        m_database = QSqlDatabase();
        QSqlDatabase::removeDatabase(name);
    }

    void Open(const std::string& path, const Table& table) override {
        m_table = &table;
        static int connections = 0;
        m_database = QSqlDatabase::addDatabase("QSQLITE", QString::number(++connections));
        m_database.setDatabaseName(QString::fromStdString(path));
        if (!m_database.open()) {
            Fail("Qt cannot open " + path);
        }
        m_select = QString::fromStdString(table.SelectSql());
    }

    void PrepareInserts() override {
        for (std::size_t row = 0; row < Table::PATTERN; ++row) {
            const bench::Insert& insert = m_table->InsertOf(row);
            m_inserts.emplace_back();
            m_inserts.back().sql = QString::fromStdString(insert.sql);
            for (const std::string& value : insert.values) {
                m_inserts.back().values.push_back(QString::fromStdString(value));
            }
        }
    }

    void InsertRows(std::size_t rows) override {
        Run("BEGIN IMMEDIATE");
        for (std::size_t row = 0; row < rows; ++row) {
            const QtInsert& insert = m_inserts[row % Table::PATTERN];
            QSqlQuery query(m_database);
            query.prepare(insert.sql);
            for (const QString& value : insert.values) {
                query.addBindValue(value);
            }
            if (!query.exec()) {
                Fail(query.lastError().text().toStdString());
            }
        }
        Run("COMMIT");
    }

    void Read() override {
        m_query = std::make_unique<QSqlQuery>(m_database);
        if (!m_query->exec(m_select) || !m_query->last()) {
            Fail(m_query->lastError().text().toStdString());
        }
    }

    void Rewind() override { m_query->seek(QSql::BeforeFirstRow); }

    std::int64_t Forward() override {
        QSqlQuery& query = *m_query;
        Sum sum;
        const bool wide = m_table->IsWide();
        qlonglong integer = 0;
        double real = 0;
        QString text;
        while (query.next()) {
            integer = query.value(INTEGER_COLUMN).toLongLong();
            sum.Add(static_cast<std::int64_t>(integer));
            text = query.value(TEXT_COLUMN).toString();
            Add(text, sum);
            if (wide) {
                real = query.value(REAL_COLUMN).toDouble();
                sum.Add(real);
                text = query.value(SECOND_TEXT_COLUMN).toString();
                Add(text, sum);
            } else {
                integer = query.value(SECOND_INTEGER_COLUMN).toLongLong();
                sum.Add(static_cast<std::int64_t>(integer));
            }
        }
        // On the last row, as the other ways end.
        query.previous();
        return sum.Total();
    }

    std::int64_t Backward() override {
        Sum sum;
        do {
            sum.Add(static_cast<std::int64_t>(m_query->value(INTEGER_COLUMN).toLongLong()));
        } while (m_query->previous());
        return sum.Total();
    }

    void Destroy() override { m_query.reset(); }

    std::int64_t SumOfHeld() override {
        Rewind();
        Sum sum;
        const int columns = static_cast<int>(m_table->Columns().size());
        while (m_query->next()) {
            for (int i = 0; i < columns; ++i) {
                const QVariant value = m_query->value(i);
                if (value.isNull()) {
                    continue;
                }
                switch (value.typeId()) {
                    case QMetaType::LongLong:
                        sum.Add(static_cast<std::int64_t>(value.toLongLong()));
                        break;
                    case QMetaType::Double:
                        sum.Add(value.toDouble());
                        break;
                    case QMetaType::QString:
                        Add(value.toString(), sum);
                        break;
                    default: {
                        const QByteArray bytes = value.toByteArray();
                        sum.Add(std::string_view(bytes.constData(), static_cast<std::size_t>(bytes.size())));
                        break;
                    }
                }
            }
        }
        return sum.Total();
    }

private:
    struct QtInsert {
        QString sql;
        std::vector<QString> values;
    };

    // The texts are ASCII: a character for a byte.
    static void Add(const QString& text, Sum& sum) {
        sum.Add(static_cast<std::int64_t>(text.size()) * 31 + (text.isEmpty() ? 0 : text.back().unicode()));
    }

    void Run(const char* sql) {
        QSqlQuery query(m_database);
        if (!query.exec(sql)) {
            Fail(query.lastError().text().toStdString());
        }
    }

    const Table* m_table = nullptr;
    QSqlDatabase m_database;
    QString m_select;
    std::vector<QtInsert> m_inserts;
    std::unique_ptr<QSqlQuery> m_query;
};

}  // namespace

std::unique_ptr<Works> MakeQtWorks() {
    // The drivers are plugins, which need an application object.
    static int argc = 1;
    static char name[] = "bench";
    static char* argv[] = {name, nullptr};
    static const auto application = std::make_unique<QCoreApplication>(argc, argv);
    if (!QSqlDatabase::isDriverAvailable("QSQLITE")) {
        return nullptr;
    }
    return std::make_unique<QtWorks>();
}

}  // namespace bench
