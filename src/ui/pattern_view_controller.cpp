#include "ui/pattern_view_controller.h"

#include <openssl/evp.h>

#include <utility>

#include "foundation/utils.h"

namespace corvane {

namespace {

constexpr size_t kDigestKeySize = 32;

SecretBytes randomKey() {
  std::optional<Bytes> bytes = Utils::randomBytesWithLength(kDigestKeySize);
  SecretBytes key(bytes ? *bytes : Bytes());
  if (bytes) internal::secureWipe(bytes->data(), bytes->size());
  return key;
}

}  // namespace

PatternViewController::PatternViewController(Services services,
                                             PatternViewControllerDelegate& delegate,
                                             RegisterCommand command, int patternGrid)
    : services_(services),
      delegate_(delegate),
      mode_(Mode::set),
      state_(State::firstDrawing),
      registerCommand_(std::move(command)),
      view_(this, patternGrid, true),
      digestKey_(randomKey()) {
  info_ = text(texts::kPatternRegInfo, colors::kPatternRegInfoText);
}

PatternViewController::PatternViewController(Services services,
                                             PatternViewControllerDelegate& delegate, Mode mode,
                                             SignCommand command,
                                             PatternLockPolicy patternLockPolicy, int64_t triesLeft,
                                             int patternGrid)
    : services_(services),
      delegate_(delegate),
      mode_(mode == Mode::set ? Mode::unlock : mode),
      state_(State::unlockEntry),
      signCommand_(std::move(command)),
      patternLockPolicy_(std::move(patternLockPolicy)),
      retryCount_(triesLeft),
      view_(this, patternGrid, false) {
  info_ = Label{std::string(), color(colors::kPatternRegInfoText, colors::kPatternAuthInfoText)};
}

PatternViewController::~PatternViewController() {
  close();
}

void PatternViewController::show() {
  if (handle_ == 0) handle_ = services_.presenter.present(*this);
}

void PatternViewController::close() {
  if (handle_ == 0) return;
  const ScreenPresenter::Handle handle = handle_;
  handle_ = 0;
  view_.invalidateCurrentPattern();
  services_.presenter.dismiss(handle);
}

void PatternViewController::changed() {
  if (handle_ != 0) services_.presenter.changed(handle_);
}

PatternScreen::Label PatternViewController::text(std::string_view textKey,
                                                 std::string_view colorKey) const {
  return Label{services_.configuration.getLocalizedStringAndReplaceWithKey(textKey),
               services_.configuration.getColorFromInfoPlistWithKey(colorKey)};
}

std::optional<Color> PatternViewController::color(std::string_view registrationKey,
                                                  std::string_view authenticationKey) const {
  return services_.configuration.getColorFromInfoPlistWithKey(isSet() ? registrationKey
                                                                      : authenticationKey);
}

PatternScreen::Label PatternViewController::title() const {
  return isSet() ? text(texts::kPatternRegHeaderTitle, colors::kPatternRegHeaderTitle)
                 : text(texts::kPatternAuthTitle, colors::kPatternAuthInfoText);
}

PatternScreen::Label PatternViewController::button() const {
  if (!isSet()) {
    return text(texts::kPatternAuthFooterButtonCancel, colors::kPatternAuthFooterButtonText);
  }
  // While a new pattern is confirmed the button starts the drawing over; before, it cancels.
  return text(state_ == State::confirming ? texts::kPatternRegFooterButtonNext
                                          : texts::kPatternRegFooterButtonCancel,
              colors::kPatternRegFooterButtonText);
}

std::optional<Color> PatternViewController::headerBackground() const {
  // The unlock screen has no header colour of its own.
  return isSet() ? services_.configuration.getColorFromInfoPlistWithKey(
                       colors::kPatternRegHeaderBackground)
                 : std::nullopt;
}

std::optional<Color> PatternViewController::gridBackground() const {
  return color(colors::kPatternRegPatternBackground, colors::kPatternAuthPatternBackground);
}

std::optional<Color> PatternViewController::footerBackground() const {
  return color(colors::kPatternRegFooterBackground, colors::kPatternAuthFooterBackground);
}

std::vector<uint32_t> PatternViewController::selectedDots() const {
  const PatternBuffer& pattern = view_.currentPattern();
  return std::vector<uint32_t>(pattern.begin(), pattern.end());
}

std::vector<Point> PatternViewController::line() const {
  const PointBuffer& points = view_.pointsArray();
  return std::vector<Point>(points.begin(), points.end());
}

std::optional<Color> PatternViewController::dotColor() const {
  if (view_.showsInvalid()) {
    return color(colors::kPatternRegPatternDotsInvalid, colors::kPatternAuthPatternDotsInvalid);
  }
  return color(colors::kPatternRegPatternDots, colors::kPatternAuthPatternDots);
}

std::optional<Color> PatternViewController::lineColor() const {
  if (view_.showsInvalid()) {
    return color(colors::kPatternRegPatternLineInvalid, colors::kPatternAuthPatternLineInvalid);
  }
  return color(colors::kPatternRegPatternLine, colors::kPatternAuthPatternLine);
}

void PatternViewController::layout(double width) {
  view_.layoutSubviews(width);
  changed();
}

void PatternViewController::touch(TouchPhase phase, Point point) {
  // No drawing under an alert, after the last try, or once the screen is closed.
  if (alert_ || !buttonEnabled_ || handle_ == 0) return;
  static constexpr PatternView::PanPhase kPhases[] = {
      PatternView::PanPhase::began, PatternView::PanPhase::changed, PatternView::PanPhase::ended,
      PatternView::PanPhase::cancelled};
  view_.pannedOnView(kPhases[static_cast<int>(phase)], point);
  changed();
}

void PatternViewController::pressButton() {
  if (!buttonEnabled_) return;
  if (isSet() && state_ == State::confirming) {
    cancelModification();
  } else {
    resetPattern();
  }
}

void PatternViewController::dismissAlert() {
  alert_.reset();
  changed();
}

void PatternViewController::cancelModification() {
  view_.invalidateCurrentPattern();
  tempPattern_.clear();
  state_ = State::firstDrawing;
  info_ = text(texts::kPatternRegInfo, colors::kPatternRegInfoText);
  changed();
}

void PatternViewController::resetPattern() {
  view_.invalidateCurrentPattern();
  close();
  if (registerCommand_) {
    delegate_.cancelModified();
  } else if (mode_ == Mode::unlockFromTransaction) {
    delegate_.backToConfirmTransactions(*signCommand_);
  } else {
    delegate_.cancelUnlocked();
  }
}

SecretBytes PatternViewController::digest(std::span<const uint32_t> pattern) const {
  std::optional<SecretBytes> serialized = PatternManager::serializePattern(pattern);
  SecretBytes out(EVP_MAX_MD_SIZE);
  size_t length = 0;
  if (!serialized || digestKey_.size() != kDigestKeySize ||
      EVP_Q_mac(nullptr, "HMAC", nullptr, "SHA256", nullptr, digestKey_.exposeSecret().data(),
                digestKey_.size(), serialized->exposeSecret().data(), serialized->size(),
                out.mutableSecret().data(), out.size(), &length) == nullptr) {
    return SecretBytes();  // never equal to a digest that was made
  }
  out.resize(length);
  return out;
}

void PatternViewController::enteredPattern(std::span<const uint32_t> pattern) {
  if (isSet()) {
    state_ == State::firstDrawing ? enteredNewPattern(pattern) : enteredConfirmation(pattern);
  } else {
    enteredUnlock(pattern);
  }
  changed();
}

void PatternViewController::enteredNewPattern(std::span<const uint32_t> pattern) {
  const std::string& user = registerCommand_->username.value_or(std::string());
  if (pattern.size() < kMinimumDots || pattern.size() > kMaximumDots) {
    alert_ =
        services_.configuration.getLocalizedStringAndReplaceWithKey(texts::kPatternRegInfoError);
  } else if (services_.configuration.isCheckPatternReused() &&
             services_.patterns.isSameAsLastPattern(pattern, user).value_or(true)) {
    // A last pattern that cannot be read is taken as the same one: the rule cannot be shown to
    // hold, and the user can draw another.
    alert_ =
        services_.configuration.getLocalizedStringAndReplaceWithKey(texts::kPatternRegReusedError);
  } else {
    tempPattern_ = digest(pattern);
    state_ = State::confirming;
    info_ = text(texts::kPatternRegInfoConfirm, colors::kPatternRegInfoText);
  }
  view_.invalidateCurrentPattern();
}

void PatternViewController::enteredConfirmation(std::span<const uint32_t> pattern) {
  const SecretBytes drawn = digest(pattern);
  if (drawn.empty() || drawn != tempPattern_) {
    info_ = text(texts::kPatternRegInfoConfirmError, colors::kPatternRegErrorText);
    view_.updateViewForInCorrectPattern();
    return;
  }
  Result<SecretBytes> sealed = services_.patterns.sealForStore(pattern);
  tempPattern_.clear();
  const RegisterCommand command = *registerCommand_;
  close();
  delegate_.modifiedPatternSendBackCommand(command, std::move(sealed));
}

void PatternViewController::enteredUnlock(std::span<const uint32_t> pattern) {
  const SignCommand command = *signCommand_;
  Result<bool> correct =
      services_.patterns.isCorrectPattern(pattern, command.username.value_or(std::string()));
  if (!correct) {
    close();
    delegate_.patternCheckFailed(command, correct.error());
    return;
  }
  if (*correct) {
    close();
    delegate_.unlockedPatternSendBackCommand(command);
    return;
  }
  delegate_.wrongPatternEntered(command);
  if (retryCount_ < 2) {
    // The last try of the round: the text stays 3 seconds, then the screen closes.
    buttonEnabled_ = false;
    view_.invalidateCurrentPattern();
    const PatternLockPolicy& round = patternLockPolicy_;
    std::string message;
    if (round.isTemplockRound) {
      message = services_.configuration.getLocalizedNumberText(texts::kPatternAuthTempLock,
                                                               round.durationSec.value_or(0));
    } else if (round.isLockoutRound) {
      message =
          services_.configuration.getLocalizedStringAndReplaceWithKey(texts::kPatternAuthLockOut);
    } else {
      message = services_.configuration.getLocalizedNumberText(texts::kPatternAuthAttemptFailed,
                                                               round.timesPerRound);
    }
    info_ =
        Label{std::move(message),
              services_.configuration.getColorFromInfoPlistWithKey(colors::kPatternAuthErrorText)};
    services_.scheduler.post(
        [this, alive = std::weak_ptr<bool>(alive_), command] {
          if (!alive.lock()) return;
          close();
          delegate_.userLockOut(command);
        },
        kLockOutClose);
    return;
  }
  --retryCount_;
  info_ = text(texts::kPatternAuthInfoError, colors::kPatternAuthErrorText);
  view_.updateViewForInCorrectPattern();
}

}  // namespace corvane
