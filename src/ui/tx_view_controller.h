// The transaction confirmation screen's logic: TxPatternViewController (before the pattern lock's
// unlock) and TxFaceViewController (before the biometric prompt) are the same screen with
// different delegates. It is the TransactionScreen a ScreenPresenter draws: a page that shows the
// last transaction's text, a confirm and a cancel button.
//
// The page is the host's page named by "zandrel_fido_tx_view_name", else the framework's
// "transaction_dialog_default.html". Once it has loaded the presenter runs
// "callJSParameter('<content>')", the content written as a JavaScript string literal so that no
// text can end the string or the call.
//
// Thread-safety: main thread only; delegates are called on the main thread. A delegate must not
// destroy the controller inside a call, only from a later main-queue task.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "authenticator/commands.h"
#include "configuration/configuration.h"
#include "corvane/ports/screen_presenter.h"

namespace corvane {

class TxPatternViewControllerDelegate {
 public:
  virtual ~TxPatternViewControllerDelegate() = default;
  virtual void txPatternViewAuthenticationRequest(const SignCommand& command) = 0;
  virtual void txPatternUserCancel() = 0;
};

class TxPatternCustomPresentationControllerDelegate {
 public:
  virtual ~TxPatternCustomPresentationControllerDelegate() = default;
  virtual void onTxPatternCustomPresentationDissmiss() = 0;
};

class TxFaceViewControllerDelegate {
 public:
  virtual ~TxFaceViewControllerDelegate() = default;
  virtual void txFaceViewAuthenticationRequest(const SignCommand& command) = 0;
  virtual void txFaceUserCancel() = 0;
};

class TxFaceCustomPresentationControllerDelegate {
 public:
  virtual ~TxFaceCustomPresentationControllerDelegate() = default;
  virtual void onTxFaceCustomPresentationDissmiss() = 0;
};

// The content as the body of a single-quoted JavaScript string literal: backslash, both quotes,
// every control character, "<" and the two Unicode line separators are escaped, everything else
// is kept as it is.
std::string javaScriptStringBody(std::string_view text);

class TxViewController : public TransactionScreen {
 public:
  // The base URL the page is loaded under: a name that can never resolve.
  static constexpr std::string_view kBaseUrl = "https://transaction.corvane.invalid/";

  ~TxViewController() override;
  TxViewController(const TxViewController&) = delete;
  TxViewController& operator=(const TxViewController&) = delete;

  // Presents the screen; close() takes it away. Both are idempotent.
  void show();
  void close();
  bool isShown() const { return handle_ != 0; }
  const SignCommand& signCommand() const { return command_; }

  // TransactionScreen.
  std::string pageHtml() const override { return page_; }
  std::string baseUrl() const override { return std::string(kBaseUrl); }
  std::string scriptAfterLoad() const override;
  std::string transactionText() const override;
  std::string confirmTitle() const override;
  bool confirmEnabled() const override { return confirmEnabled_; }
  bool cancelEnabled() const override { return cancelEnabled_; }
  // Only addresses that begin with "http" go on; for any other the decision is never given.
  bool allowsNavigation(const std::string& url) const override;
  void pressConfirm() override;
  void pressCancel() override;
  void dismissedByUser() override;

 protected:
  TxViewController(const Configuration& configuration, ScreenPresenter& presenter,
                   SignCommand command);
  virtual void confirmed() = 0;
  virtual void cancelled() = 0;
  virtual void dismissed() = 0;

  const Configuration& configuration_;

 private:
  ScreenPresenter& presenter_;
  SignCommand command_;
  std::string page_;
  bool confirmEnabled_ = true;
  bool cancelEnabled_ = true;
  ScreenPresenter::Handle handle_ = 0;
};

class TxPatternViewController final : public TxViewController {
 public:
  TxPatternViewController(const Configuration& configuration, ScreenPresenter& presenter,
                          TxPatternViewControllerDelegate& delegate,
                          TxPatternCustomPresentationControllerDelegate& presentationDelegate,
                          SignCommand command);
  // Titled with the confirm button's text: the same key on both buttons is deliberate.
  std::string cancelTitle() const override;

 private:
  void confirmed() override;
  void cancelled() override;
  void dismissed() override;

  TxPatternViewControllerDelegate& delegate_;
  TxPatternCustomPresentationControllerDelegate& presentationDelegate_;
};

class TxFaceViewController final : public TxViewController {
 public:
  TxFaceViewController(const Configuration& configuration, ScreenPresenter& presenter,
                       TxFaceViewControllerDelegate& delegate,
                       TxFaceCustomPresentationControllerDelegate& presentationDelegate,
                       SignCommand command);
  std::string cancelTitle() const override;

 private:
  void confirmed() override;
  void cancelled() override;
  void dismissed() override;

  TxFaceViewControllerDelegate& delegate_;
  TxFaceCustomPresentationControllerDelegate& presentationDelegate_;
};

}  // namespace corvane
