// Runs before the page's own script, and beside it.
(async () => {
  const errors = [];
  for (const kind of ["error", "unhandledrejection", "securitypolicyviolation"])
    addEventListener(kind, e => errors.push(`${kind}: ${e.message ?? e.reason ?? e.blockedURI}`), true);

  const say = body => fetch("/", { method: "POST", body });
  const expect = (holds, otherwise) => {
    if (!holds) throw new Error(otherwise);
  };
  const wait = async condition => {
    for (let i = 0; !condition(); ++i) {
      expect(i < 600, `not so within a minute: ${condition}`);
      await new Promise(done => setTimeout(done, 100));
    }
  };
  const text = id => byId(id).textContent;
  const table = id => [...byId(id).rows].map(row => [...row.cells].map(cell => cell.textContent));
  const task = name => table("tasks").find(row => row[2] === name);

  // Where runs are drawn: the columns that have a colour, which is neither white nor grey.
  const columns = lane => {
    const { width } = canvas, ratio = width / canvas.clientWidth;
    const { data } = context.getImageData(0, Math.floor((lane * 44 + 15) * ratio), width, 1);
    return [...Array(width).keys()].filter(i => {
      const rgb = data.subarray(4 * i, 4 * i + 3);
      return Math.max(...rgb) - Math.min(...rgb) > 60;
    }).map(i => i / ratio);
  };
  const mouse = (kind, x, deltaY = 0) => {
    const box = canvas.getBoundingClientRect(), clientX = box.left + x, clientY = box.top + 15;
    const event = new WheelEvent(kind, { clientX, clientY, deltaY, bubbles: true, cancelable: true });
    document.elementFromPoint(clientX, clientY).dispatchEvent(event);
  };

  function checkTimeline(lanes) {
    for (const name of ["kelkv normal", "kelkv low", "TaskGroup;background low"])
      expect(columns(lanes.indexOf(name)).length, `nothing is drawn in ${name} of ${lanes}`);
    const axis = [...byId("axis").children].map(label => label.textContent);
    expect(axis.length >= 10 && axis.every((label, n) => label === (n ? `−${n} s` : "now")), axis);
    for (const name of [ODD, "thread_name", "violation", "run queue"])
      expect(text("legend").includes(name), `${name} is not in the legend: ${text("legend")}`);
  }

  async function checkThatTimeGoesOn(lane) {
    const before = columns(lane)[0], start = trace.end;
    await wait(() => trace.end > start + 2e6);
    const moved = before - columns(lane)[0], expected = (trace.end - start) / 10e6 * canvas.clientWidth;
    expect(Math.abs(moved - expected) < 3, `a run moved by ${moved} pixels, ${expected} of time went by`);
  }

  async function checkPointingAndZoom() {
    mouse("wheel", 900, -100);
    await wait(() => text("state").includes("stands still"));
    const figures = /^: [\d.]+ µs, scheduled [\d.]+ µs before, (about )?[\d.]+ % of the quantum$/;
    const column = columns(0).find(x => {
      mouse("mousemove", x);
      return text("pointed").startsWith(ODD) && figures.test(text("pointed").slice(ODD.length));
    });
    expect(column, `no run of the odd name was pointed at: ${text("pointed")}`);
    for (let i = 0; i < 4; ++i) mouse("wheel", column, -100); // a pixel becomes sixteen
    expect(text("axis").includes(" ms"), text("axis"));
    expect(columns(0).some(x => Math.abs(column - x) < 32), "what was zoomed to has gone");
    mouse("dblclick", column);
    await wait(() => text("axis").includes("−9 s"));
  }

  async function checkTables() {
    const before = Number(task("http")[3]);
    await wait(() => Number(task("http")[3]) > before);
    expect(task(ODD), "no row has the odd name");
    expect(Number(task("thread_name")[4]) > 0, task("thread_name"));
    const queues = table("queues").map(row => row.join());
    expect(queues[0] === "scheduler,priority,runnable,idle,dead", queues[0]);
    expect(queues.some(row => /^TaskGroup;background,low,0,0,[23]$/.test(row)), queues); // one may be reset
  }

  async function check() {
    await wait(() => document.readyState === "complete" && byId("tasks").rows.length);
    const lanes = [...byId("lanes").children].map(lane => lane.title);
    checkTimeline(lanes);
    await checkThatTimeGoesOn(lanes.indexOf("TaskGroup;background low"));
    await checkPointingAndZoom();
    await checkTables();
    expect(window.hurt === undefined && document.querySelectorAll("img, script").length === 2, "a name was run");
    await say("live");
    await wait(() => text("state").startsWith("no answer"));
    expect(!errors.length, errors);
  }

  say(await check().then(() => "gone", error => error.stack));
})();
