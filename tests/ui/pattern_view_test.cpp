// The grid's geometry (which dots a drag selects) and the transaction page's script, which must
// hand the content over as one intact string whatever it holds.
#include "ui/pattern_view.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "fakes/fake_host_bundle.h"
#include "fakes/fake_user_defaults.h"
#include "fakes/scripted_presenter.h"
#include "ui/tx_view_controller.h"

namespace corvane {
namespace {

using Phase = PatternView::PanPhase;

struct Recorder final : PatternDelegate {
  std::vector<std::vector<uint32_t>> entered;
  int started = 0;
  void enteredPattern(std::span<const uint32_t> pattern) override {
    entered.emplace_back(pattern.begin(), pattern.end());
  }
  void completedAnimations() override {}
  void startedDrawing() override { ++started; }
};

struct Touch {
  Phase phase;
  Point at;
};

TEST(PatternViewTest, DragsSelectTheDotsTheGeometrySays) {
  // 300 points wide: 3 x 3 centres at 50, 150, 250; 4 x 4 centres at 47.5, 122.5, 197.5, 272.5.
  const struct {
    const char* name;
    int grid;
    std::vector<Touch> touches;
    std::optional<std::vector<uint32_t>> entered;
  } cases[] = {
      {"first touch 25 points off a dot selects it",
       0,
       {{Phase::began, {75, 75}}, {Phase::ended, {75, 75}}},
       std::vector<uint32_t>{0}},
      {"first touch 30 points off selects nothing",
       0,
       {{Phase::began, {80, 50}}, {Phase::ended, {80, 50}}},
       std::nullopt},
      {"later touch 25 points off a dot does not select it",
       0,
       {{Phase::began, {50, 50}},
        {Phase::changed, {100, 100}},
        {Phase::changed, {175, 50}},
        {Phase::ended, {175, 50}}},
       std::vector<uint32_t>{0}},
      {"later touch 19 points off selects it",
       0,
       {{Phase::began, {50, 50}},
        {Phase::changed, {100, 100}},
        {Phase::changed, {169, 50}},
        {Phase::ended, {169, 50}}},
       std::vector<uint32_t>{0, 1}},
      {"3 x 3 row from end to end",
       0,
       {{Phase::began, {50, 50}},
        {Phase::changed, {250, 50}},
        {Phase::changed, {250, 50}},
        {Phase::ended, {250, 50}}},
       std::vector<uint32_t>{0, 1, 2}},
      {"4 x 4 row from end to end keeps the second skipped dot out",
       1,
       {{Phase::began, {47.5, 47.5}},
        {Phase::changed, {272.5, 47.5}},
        {Phase::changed, {272.5, 47.5}},
        {Phase::ended, {272.5, 47.5}}},
       std::vector<uint32_t>{0, 1, 3}},
      {"tap on no dot", 0, {{Phase::began, {100, 100}}, {Phase::ended, {100, 100}}}, std::nullopt},
      {"return to an earlier dot appends it again",
       0,
       {{Phase::began, {50, 50}},
        {Phase::changed, {100, 60}},
        {Phase::changed, {150, 50}},
        {Phase::changed, {150, 100}},
        {Phase::changed, {150, 150}},
        {Phase::changed, {100, 100}},
        {Phase::changed, {50, 50}},
        {Phase::ended, {50, 50}}},
       std::vector<uint32_t>{0, 1, 4, 0}},
  };
  for (const auto& c : cases) {
    Recorder recorder;
    PatternView view(&recorder, c.grid, false);
    view.layoutSubviews(300);
    for (const Touch& touch : c.touches) view.pannedOnView(touch.phase, touch.at);
    if (c.entered) {
      ASSERT_EQ(recorder.entered.size(), 1u) << c.name;
      EXPECT_EQ(recorder.entered[0], *c.entered) << c.name;
      EXPECT_EQ(recorder.started, 1) << c.name;
    } else {
      EXPECT_TRUE(recorder.entered.empty()) << c.name;
    }
  }
}

struct NoDelegate final : TxPatternViewControllerDelegate,
                          TxPatternCustomPresentationControllerDelegate {
  void txPatternViewAuthenticationRequest(const SignCommand&) override {}
  void txPatternUserCancel() override {}
  void onTxPatternCustomPresentationDissmiss() override {}
};

TEST(TxViewControllerTest, ContentReachesThePageAsOneStringArgument) {
  testing::FakeHostBundle host;
  testing::FakeHostBundle framework;
  testing::FakeUserDefaults defaults;
  Configuration configuration(host, framework, defaults);
  testing::ScriptedPresenter presenter;
  NoDelegate delegate;
  SignCommand command;
  command.transaction =
      std::vector{Transaction{"text/plain", "'); alert(1); ('\nnext</script>\\", std::nullopt}};
  TxPatternViewController screen(configuration, presenter, delegate, delegate, command);
  EXPECT_EQ(screen.scriptAfterLoad(),
            R"(callJSParameter('\'); alert(1); (\'\x0Anext\x3C/script\x3E\\'))");
  EXPECT_EQ(javaScriptStringBody("\xe2\x80\xa8\r\"\x01"), R"(\u2028\x0D\"\x01)");
}

}  // namespace
}  // namespace corvane
