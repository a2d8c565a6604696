#include "report_json.h"

#include "machine_words.h"

namespace Bench {
namespace {

using Json = nlohmann::ordered_json;

Json Workloads(const Results& results) {
  Json workloads = Json::array();
  for (std::size_t r = 0; r < ROWS; ++r) {
    const Row row = static_cast<Row>(r);
    const RowInfo& info = results.rows[row];
    Json subjects = Json::object();
    for (const SubjectTimes& subject : results.times) {
      if (subject.Has(row)) {
        subjects[subject.name] = {{"nanoseconds", subject.MedianOf(row)},
                                  {"rounds", subject.nanoseconds[row]},
                                  {"ratioToOneTbb", results.Ratio(subject, row)},
                                  {"shareOfLimit", results.LimitNanoseconds(row) / subject.MedianOf(row)}};
      }
    }
    workloads.push_back({{"id", info.id},
                         {"title", info.title},
                         {"comparedWith", results.rows[info.comparedWith].id},
                         {"threads", info.oneThread ? 1 : results.threads},
                         {"lines", info.lines},
                         {"bytes", info.bytes},
                         {"limitNanoseconds", results.LimitNanoseconds(row)},
                         {"subjects", subjects}});
  }
  return workloads;
}

Json Latencies(const Results& results) {
  using Step = SubjectLatency::Step;
  Json latencies = Json::object();
  for (const SubjectLatency& subject : results.latencies) {
    Json entry;
    for (const auto& [name, step] : {std::pair{"insert", Step::INSERT}, {"lookup", Step::LOOKUP}}) {
      entry[name] = {{"p50", subject.MedianQuantile(step, 0.5)},     {"p99", subject.MedianQuantile(step, 0.99)},
                     {"p99.9", subject.MedianQuantile(step, 0.999)}, {"p99.99", subject.MedianQuantile(step, 0.9999)},
                     {"worst", subject.MedianWorst(step)},           {"worstOfAllRounds", subject.Worst(step)}};
    }
    latencies[subject.name] = entry;
  }
  return latencies;
}

Json Residents(const Results& results) {
  Json residents = Json::array();
  for (const SubjectResident& subject : results.residents) {
    residents.push_back({{"subject", subject.name},
                         {"fill", FillName(subject.fill)},
                         {"bytesAnEntry", subject.resident.bytesAnEntry},
                         {"peakBytesAnEntry", subject.resident.peakBytesAnEntry},
                         {"createMilliseconds", subject.resident.createMilliseconds},
                         {"createdMebibytes", subject.resident.createdMebibytes},
                         {"fillSeconds", subject.resident.fillSeconds},
                         {"destroyMilliseconds", subject.resident.destroyMilliseconds}});
  }
  return residents;
}

}  // namespace

Json ResultsAsJson(const Results& results, const std::string& command) {
  const MachineLimits::Rates rates = results.MedianLimits();
  return {{"command", command},
          {"machine", MachineInWords()},
          {"entries", results.entries},
          {"threads", results.threads},
          {"rounds", results.rounds},
          {"latencyRounds", results.latencyRounds},
          {"valueBytes", VALUE_BYTES},
          {"limits",
           {{"rangeBytes", results.limitRangeBytes},
            {"lineNanoseconds", rates.lineNanoseconds},
            {"bytesASecond", rates.bytesASecond},
            {"oneThreadLineNanoseconds", rates.oneThreadLineNanoseconds},
            {"oneThreadBytesASecond", rates.oneThreadBytesASecond}}},
          {"workloads", Workloads(results)},
          {"growthLatencyNanoseconds", Latencies(results)},
          {"memory", Residents(results)},
          {"seconds", results.seconds}};
}

}  // namespace Bench
