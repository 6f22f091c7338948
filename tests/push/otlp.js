// A body of OTLP as OpenTelemetry's own definitions read it: what they do not know would be gone when it comes back.
const { strictEqual, deepStrictEqual } = require("assert");
const { opentelemetry } = require(process.argv[2]);
const Request = opentelemetry.proto.collector.metrics.v1.ExportMetricsServiceRequest;
const body = JSON.parse(require("fs").readFileSync(0));
const bytes = Request.encode(Request.fromObject(body)).finish();
deepStrictEqual(JSON.parse(JSON.stringify(Request.toObject(Request.decode(bytes), { longs: String }))), body);
strictEqual(body.resourceMetrics[0].scopeMetrics[0].metrics.length > 5, true);
