#include "ui/tx_view_controller.h"

#include <fstream>
#include <iterator>
#include <utility>

namespace corvane {

namespace {

// Pages are small; a file past this is not loaded.
constexpr std::streamsize kMaxPageSize = 1 << 20;

std::optional<std::string> readPage(const std::optional<std::filesystem::path>& path) {
  if (!path) return std::nullopt;
  std::ifstream in(*path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string page;
  page.resize(static_cast<size_t>(kMaxPageSize) + 1);
  in.read(page.data(), kMaxPageSize + 1);
  if (in.bad() || in.gcount() > kMaxPageSize) return std::nullopt;
  page.resize(static_cast<size_t>(in.gcount()));
  return page;
}

// The host's page, else the framework's default page; empty when neither can be read (the
// presenter still shows the text and the buttons).
std::string loadPage(const Configuration& configuration) {
  if (std::optional<std::string> page = readPage(configuration.getTxViewPath())) return *page;
  std::optional<std::string> fallback =
      readPage(configuration.framework().pathForResource(kDefaultTxViewName, "html"));
  return fallback.value_or(std::string());
}

}  // namespace

std::string javaScriptStringBody(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() + 16);
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    // U+2028 and U+2029 end a line inside a string literal in older JavaScript.
    if (c == 0xE2 && i + 2 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0x80 &&
        (static_cast<unsigned char>(text[i + 2]) == 0xA8 ||
         static_cast<unsigned char>(text[i + 2]) == 0xA9)) {
      out += static_cast<unsigned char>(text[i + 2]) == 0xA8 ? "\\u2028" : "\\u2029";
      i += 2;
    } else if (c == '\\' || c == '\'' || c == '"') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F || c == '<' || c == '>') {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 0x0F];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

TxViewController::TxViewController(const Configuration& configuration, ScreenPresenter& presenter,
                                   SignCommand command)
    : configuration_(configuration),
      presenter_(presenter),
      command_(std::move(command)),
      page_(loadPage(configuration)) {}

TxViewController::~TxViewController() {
  close();
}

void TxViewController::show() {
  if (handle_ == 0) handle_ = presenter_.present(*this);
}

void TxViewController::close() {
  if (handle_ == 0) return;
  const ScreenPresenter::Handle handle = handle_;
  handle_ = 0;
  presenter_.dismiss(handle);
}

std::string TxViewController::transactionText() const {
  if (!command_.transaction || command_.transaction->empty()) return std::string();
  return command_.transaction->back().content.value_or(std::string());
}

std::string TxViewController::scriptAfterLoad() const {
  return "callJSParameter('" + javaScriptStringBody(transactionText()) + "')";
}

std::string TxViewController::confirmTitle() const {
  return configuration_.getLocalizedStringAndReplaceWithKey(texts::kTxAuthFooterButtonConfirm);
}

bool TxViewController::allowsNavigation(const std::string& url) const {
  return url.starts_with("http");
}

void TxViewController::pressConfirm() {
  if (!confirmEnabled_) return;
  confirmEnabled_ = false;
  if (handle_ != 0) presenter_.changed(handle_);
  confirmed();
}

void TxViewController::pressCancel() {
  if (!cancelEnabled_) return;
  cancelEnabled_ = false;
  close();
  cancelled();
}

void TxViewController::dismissedByUser() {
  // The presenter has taken the screen away already.
  handle_ = 0;
  dismissed();
}

TxPatternViewController::TxPatternViewController(
    const Configuration& configuration, ScreenPresenter& presenter,
    TxPatternViewControllerDelegate& delegate,
    TxPatternCustomPresentationControllerDelegate& presentationDelegate, SignCommand command)
    : TxViewController(configuration, presenter, std::move(command)),
      delegate_(delegate),
      presentationDelegate_(presentationDelegate) {}

std::string TxPatternViewController::cancelTitle() const {
  return configuration_.getLocalizedStringAndReplaceWithKey(texts::kTxAuthFooterButtonConfirm);
}

void TxPatternViewController::confirmed() {
  delegate_.txPatternViewAuthenticationRequest(signCommand());
}

void TxPatternViewController::cancelled() {
  delegate_.txPatternUserCancel();
}

void TxPatternViewController::dismissed() {
  presentationDelegate_.onTxPatternCustomPresentationDissmiss();
}

TxFaceViewController::TxFaceViewController(
    const Configuration& configuration, ScreenPresenter& presenter,
    TxFaceViewControllerDelegate& delegate,
    TxFaceCustomPresentationControllerDelegate& presentationDelegate, SignCommand command)
    : TxViewController(configuration, presenter, std::move(command)),
      delegate_(delegate),
      presentationDelegate_(presentationDelegate) {}

std::string TxFaceViewController::cancelTitle() const {
  return configuration_.getLocalizedStringAndReplaceWithKey(texts::kTxAuthFooterButtonCancel);
}

void TxFaceViewController::confirmed() {
  delegate_.txFaceViewAuthenticationRequest(signCommand());
}

void TxFaceViewController::cancelled() {
  delegate_.txFaceUserCancel();
}

void TxFaceViewController::dismissed() {
  presentationDelegate_.onTxFaceCustomPresentationDissmiss();
}

}  // namespace corvane
