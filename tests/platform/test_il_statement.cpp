#include "tests/platform/il_statement.h"

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

} // namespace
