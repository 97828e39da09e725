#include "tests/platform/il_statement.h"
#include "tests/support/own_files.h"

#include <fstream>
#include <set>

namespace {

std::vector<IlRow> all_rows()
{
    std::vector<IlRow> rows;
    for (const auto &area :
         {state_rows(), buffer_rows(), port_rows(), parameter_rows(), recorder_rows()}) {
        rows.insert(rows.end(), area.begin(), area.end());
    }
    return rows;
}

class Statement : public PlatformTest, public testing::WithParamInterface<IlRow> {};

TEST_P(Statement, Holds)
{
    Il il;
    GetParam().expect(il);
    il.finish();
}

INSTANTIATE_TEST_SUITE_P(, Statement, testing::ValuesIn(all_rows()),
                         [](const auto &test) { return std::string(test.param.name); });

TEST(StatementPage, HasTheRowsOfTheTests)
{
    std::multiset<std::string> tested;
    for (const IlRow &row : all_rows()) {
        tested.insert(row.name);
    }
    std::multiset<std::string> written;
    std::ifstream page(source_file("docs/openmax-il.md"));
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("| `")) {
            written.insert(line.substr(3, line.find('`', 3) - 3));
        }
    }
    EXPECT_EQ(written, tested);
}

} // namespace
