#pragma once
// The Data Stream page: the stream monitor's figures once a second, the diagnosis in
// words, the one write that sends the data here, and the recording. The page only binds
// to these properties and calls these invokables.

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QUrl>
#include <QVariantList>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "stream_diagnosis.h"
#include "stream_monitor.h"

class VarkelManager;

class StreamMonitorModel : public QObject {
  Q_OBJECT
  Q_PROPERTY(bool listening READ listening NOTIFY changed)
  Q_PROPERTY(int port READ port NOTIFY changed)
  Q_PROPERTY(QString error READ error NOTIFY changed)
  // Rows of [label, value].
  Q_PROPERTY(QVariantList figures READ figures NOTIFY changed)
  // Rows of [sender, datagrams, share].
  Q_PROPERTY(QVariantList senders READ senders NOTIFY changed)
  Q_PROPERTY(QStringList diagnosis READ diagnosis NOTIFY changed)
  // The write that would bring the data here, in words naming old and new values ("" none).
  Q_PROPERTY(QString sendHereQuestion READ sendHereQuestion NOTIFY changed)
  Q_PROPERTY(bool recording READ recording NOTIFY changed)
  Q_PROPERTY(QString recordingText READ recordingText NOTIFY changed)

 public:
  StreamMonitorModel(VarkelManager& manager, QObject* parent = nullptr);
  ~StreamMonitorModel() override;

  bool listening() const { return monitor_.running(); }
  int port() const { return monitor_.port(); }
  QString error() const { return error_; }
  QVariantList figures() const { return figures_; }
  QVariantList senders() const { return senders_; }
  QStringList diagnosis() const { return diagnosis_; }
  QString sendHereQuestion() const { return question_; }
  bool recording() const { return recording_; }
  QString recordingText() const { return recording_text_; }

  // Listens on the port the data should come to: the sensor's "Data Port" when connected,
  // else the window's UDP port setting. Restarts when listening already.
  Q_INVOKABLE void Start();
  Q_INVOKABLE void Stop();
  // Writes the destination that sendHereQuestion named and reads it back; the outcome
  // arrives as the controller's success or error message.
  Q_INVOKABLE void SendDataHere();
  Q_INVOKABLE void StartRecording(QUrl file);
  Q_INVOKABLE void StopRecording();
  // One refresh now (the timer does it once a second).
  Q_INVOKABLE void Refresh();

  // Tests make the quiet period short.
  void SetQuietPeriod(std::chrono::milliseconds period) { quiet_period_ = period; }

 signals:
  void changed();

 private:
  quarn::lidar::StreamContext Context();

  VarkelManager& manager_;
  quarn::lidar::StreamMonitor monitor_;
  QTimer timer_;
  std::chrono::milliseconds quiet_period_{3000};
  QString error_;
  QVariantList figures_;
  QVariantList senders_;
  QStringList diagnosis_;
  QString question_;
  std::vector<std::pair<std::string, std::string>> fix_;
  bool recording_ = false;
  QString recording_text_;
};
