#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/KaGridJob.h"

// The job's messages and progress on stderr: a bar redrawn in place on a
// terminal, plain lines at every tenth of the way otherwise. Keeps the objects
// a job creates besides the surface (the triangle mesh).
class KaProgress : public KaJobObserver {
public:
    explicit KaProgress(bool quiet);
    void Message(const std::string& text) override;
    void Progress(const KaJobProgress& progress) override;
    // Steps of other work (cross-validation, tuning): `text` names the stage.
    void Percent(int percent, const std::string& text) override;
    void CreatedObject(std::unique_ptr<KaDataObject> object) override;
    // Ends the bar's line.
    void Finish();

    const std::vector<std::unique_ptr<KaDataObject>>& Created() const { return created_; }

private:
    // `rowCount`: the text is a row counter shown beside the bar, not a stage.
    void Show(int percent, const std::string& text, bool rowCount);
    void Draw(int percent, const std::string& rowText);

    bool quiet_;
    bool tty_;
    bool open_ = false;  // a bar is drawn on the current line
    int lastPlain_ = -1;
    std::string stage_;
    std::vector<std::unique_ptr<KaDataObject>> created_;
};
