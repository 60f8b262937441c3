<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>BridgeCaptureLog</name>
    <message>
        <source>%1 dropped %2 frames, %3 bytes%4: %5
</source>
        <translation>%1 丢弃 %2 帧，%3 字节%4：%5
</translation>
    </message>
</context>
<context>
    <name>BridgeEditDialog</name>
    <message>
        <source>Add Bridge</source>
        <translation>添加桥接</translation>
    </message>
    <message>
        <source>Edit Bridge</source>
        <translation>编辑桥接</translation>
    </message>
    <message>
        <source>Name</source>
        <translation>名称</translation>
    </message>
    <message>
        <source>Kind</source>
        <translation>类型</translation>
    </message>
    <message>
        <source>Direction</source>
        <translation>方向</translation>
    </message>
    <message>
        <source>Enabled</source>
        <translation>启用</translation>
    </message>
    <message>
        <source>End %1</source>
        <translation>端 %1</translation>
    </message>
    <message>
        <source>Ends</source>
        <translation>两端</translation>
    </message>
    <message>
        <source>Framing</source>
        <translation>分帧</translation>
    </message>
    <message>
        <source> bytes</source>
        <translation> 字节</translation>
    </message>
    <message>
        <source>Queued bytes per target at which the overflow policy acts</source>
        <translation>每个目标排队字节数达到此值时执行溢出策略</translation>
    </message>
    <message>
        <source>High watermark</source>
        <translation>高水位</translation>
    </message>
    <message>
        <source>Queued bytes per target at which a paused source reads again, or dropping stops</source>
        <translation>每个目标排队字节数降到此值时，已暂停的源恢复读取，或停止丢弃</translation>
    </message>
    <message>
        <source>Low watermark</source>
        <translation>低水位</translation>
    </message>
    <message>
        <source>What happens when a target takes data slower than it comes. Pausing the source loses nothing; the other policies count every frame they drop.</source>
        <translation>目标接收数据慢于数据到达时的处理方式。暂停源不会丢失任何数据；其他策略会统计丢弃的每一帧。</translation>
    </message>
    <message>
        <source>When a target falls behind</source>
        <translation>目标跟不上时</translation>
    </message>
    <message>
        <source>Suspend when an end sends back what it was sent (a cable loop)</source>
        <translation>某一端把发给它的数据原样送回时挂起（线缆环路）</translation>
    </message>
    <message>
        <source>Flood guard</source>
        <translation>防洪保护</translation>
    </message>
    <message>
        <source> bytes/s</source>
        <translation> 字节/秒</translation>
    </message>
    <message>
        <source>no limit</source>
        <translation>不限</translation>
    </message>
    <message>
        <source>Suspend when a direction stays above this rate for the time below</source>
        <translation>某一方向的速率持续高于此值达到下面的时间时挂起</translation>
    </message>
    <message>
        <source>Rate limit</source>
        <translation>速率上限</translation>
    </message>
    <message>
        <source> s</source>
        <translation> 秒</translation>
    </message>
    <message>
        <source>For</source>
        <translation>持续</translation>
    </message>
    <message>
        <source>Queue and Flood Guard</source>
        <translation>队列与防洪</translation>
    </message>
    <message>
        <source>Write every forwarded frame to a capture log</source>
        <translation>将每个转发的帧写入抓包日志</translation>
    </message>
    <message>
        <source>Choose the folder</source>
        <translation>选择文件夹</translation>
    </message>
    <message>
        <source>Capture Folder</source>
        <translation>抓包文件夹</translation>
    </message>
    <message>
        <source>Folder</source>
        <translation>文件夹</translation>
    </message>
    <message>
        <source> MiB</source>
        <translation> MiB</translation>
    </message>
    <message>
        <source>never</source>
        <translation>从不</translation>
    </message>
    <message>
        <source>Start a new file at</source>
        <translation>新建文件的大小</translation>
    </message>
    <message>
        <source>Capture Log</source>
        <translation>抓包日志</translation>
    </message>
    <message>
        <source>Modbus Gateway</source>
        <translation>Modbus 网关</translation>
    </message>
</context>
<context>
    <name>BridgeEndForm</name>
    <message>
        <source>Kind</source>
        <translation>类型</translation>
    </message>
    <message>
        <source>The pane whose connection this is, as its kind and port: ser-COM3, tcpc-10.0.0.5:502, tcps-7000. The bridge waits while no pane has it.</source>
        <translation>拥有此连接的面板，写作类型和端口：ser-COM3、tcpc-10.0.0.5:502、tcps-7000。没有面板使用它时，桥接会等待。</translation>
    </message>
    <message>
        <source>Pane</source>
        <translation>面板</translation>
    </message>
    <message>
        <source>0.0.0.0 listens on every IPv4 address, :: on every address, 127.0.0.1 on this computer only</source>
        <translation>0.0.0.0 监听所有 IPv4 地址，:: 监听所有地址，127.0.0.1 仅监听本机</translation>
    </message>
    <message>
        <source>Listen address</source>
        <translation>监听地址</translation>
    </message>
    <message>
        <source>any free port</source>
        <translation>任意空闲端口</translation>
    </message>
    <message>
        <source>Port</source>
        <translation>端口</translation>
    </message>
    <message>
        <source>everyone</source>
        <translation>所有人</translation>
    </message>
    <message>
        <source>Addresses or subnets allowed to connect, separated by commas, e.g. 192.168.1.0/24, 10.0.0.7</source>
        <translation>允许连接的地址或子网，用逗号分隔，例如 192.168.1.0/24, 10.0.0.7</translation>
    </message>
    <message>
        <source>Allowlist</source>
        <translation>白名单</translation>
    </message>
    <message>
        <source>One client at a time</source>
        <translation>同一时间只允许一个客户端</translation>
    </message>
    <message>
        <source>Each frame goes to every target as one datagram</source>
        <translation>每一帧作为一个数据报发送到每个目标</translation>
    </message>
    <message>
        <source>Targets</source>
        <translation>目标</translation>
    </message>
</context>
<context>
    <name>BridgeEngine</name>
    <message>
        <source>Disabled</source>
        <translation>已禁用</translation>
    </message>
    <message>
        <source>Waiting</source>
        <translation>等待中</translation>
    </message>
    <message>
        <source>Running</source>
        <translation>运行中</translation>
    </message>
    <message>
        <source>Suspended</source>
        <translation>已挂起</translation>
    </message>
    <message>
        <source>Stopped</source>
        <translation>已停止</translation>
    </message>
    <message>
        <source>Waiting: %1</source>
        <translation>等待中：%1</translation>
    </message>
    <message>
        <source>Stopped: %1</source>
        <translation>已停止：%1</translation>
    </message>
    <message>
        <source>%1 started: %2 and %3</source>
        <translation>%1 已启动：%2 与 %3</translation>
    </message>
    <message>
        <source>starting</source>
        <translation>正在启动</translation>
    </message>
    <message>
        <source>%1 stopped</source>
        <translation>%1 已停止</translation>
    </message>
    <message>
        <source>Suspended: %1 sends back what this bridge writes to it, as a looped cable would. Remove the loop, then choose Enable to resume.</source>
        <translation>已挂起：%1 把本桥接写给它的数据原样送回，像线缆环路一样。请排除环路，然后选择“启用”以恢复。</translation>
    </message>
    <message>
        <source>Suspended: %1 carried more than %L2 bytes/s for %3 s, as a loop or a flood would. Check the wiring, then choose Enable to resume.</source>
        <translation>已挂起：%1 在 %3 秒内持续超过 %L2 字节/秒，像环路或数据洪流一样。请检查接线，然后选择“启用”以恢复。</translation>
    </message>
</context>
<context>
    <name>BridgeFramingForm</name>
    <message>
        <source>Keep the delimiter in the frame</source>
        <translation>帧中保留分隔符</translation>
    </message>
    <message>
        <source>Framing</source>
        <translation>分帧</translation>
    </message>
    <message>
        <source> ms</source>
        <translation> 毫秒</translation>
    </message>
    <message>
        <source>A frame ends when the line has been quiet this long</source>
        <translation>线路空闲达到此时长时，一帧结束</translation>
    </message>
    <message>
        <source>Idle gap</source>
        <translation>空闲间隔</translation>
    </message>
    <message>
        <source>The bytes that end a frame, in hex</source>
        <translation>结束一帧的字节，十六进制</translation>
    </message>
    <message>
        <source>Delimiter</source>
        <translation>分隔符</translation>
    </message>
    <message>
        <source> bytes</source>
        <translation> 字节</translation>
    </message>
    <message>
        <source>Fixed length</source>
        <translation>固定长度</translation>
    </message>
    <message>
        <source>Longer frames are cut here</source>
        <translation>更长的帧在此处切开</translation>
    </message>
    <message>
        <source>Maximum frame size</source>
        <translation>最大帧长</translation>
    </message>
    <message>
        <source>no hold</source>
        <translation>不等待</translation>
    </message>
    <message>
        <source>A partial frame goes out this long after its first byte</source>
        <translation>不完整的帧在其第一个字节到达后经过此时长即发出</translation>
    </message>
    <message>
        <source>Hold time</source>
        <translation>等待时间</translation>
    </message>
    <message>
        <source>%1: the delimiter &quot;%2&quot; is not hex bytes such as 0D 0A.</source>
        <translation>%1：分隔符“%2”不是十六进制字节（例如 0D 0A）。</translation>
    </message>
</context>
<context>
    <name>BridgeManager</name>
    <message>
        <source>There can be at most %1 bridges.</source>
        <translation>最多只能有 %1 个桥接。</translation>
    </message>
    <message>
        <source>That bridge no longer exists.</source>
        <translation>该桥接已不存在。</translation>
    </message>
</context>
<context>
    <name>BridgeRecord</name>
    <message>
        <source>Forward data</source>
        <translation>转发数据</translation>
    </message>
    <message>
        <source>Both ways</source>
        <translation>双向</translation>
    </message>
    <message>
        <source>Pane</source>
        <translation>面板</translation>
    </message>
    <message>
        <source>TCP listener</source>
        <translation>TCP 监听</translation>
    </message>
    <message>
        <source>UDP targets</source>
        <translation>UDP 目标</translation>
    </message>
    <message>
        <source>None (as received)</source>
        <translation>无（按收到的原样）</translation>
    </message>
    <message>
        <source>Idle gap</source>
        <translation>空闲间隔</translation>
    </message>
    <message>
        <source>Delimiter</source>
        <translation>分隔符</translation>
    </message>
    <message>
        <source>Fixed length</source>
        <translation>固定长度</translation>
    </message>
    <message>
        <source>Pause the source</source>
        <translation>暂停源</translation>
    </message>
    <message>
        <source>Drop oldest</source>
        <translation>丢弃最旧的</translation>
    </message>
    <message>
        <source>Drop newest</source>
        <translation>丢弃最新的</translation>
    </message>
    <message>
        <source>Disconnect the target</source>
        <translation>断开目标</translation>
    </message>
    <message>
        <source>Give the bridge a name.</source>
        <translation>请为桥接命名。</translation>
    </message>
    <message>
        <source>A bridge name has at most %1 characters.</source>
        <translation>桥接名称最多 %1 个字符。</translation>
    </message>
    <message>
        <source>Both ends name the same pane.</source>
        <translation>两端指向同一个面板。</translation>
    </message>
    <message>
        <source>Both ends listen on port %1.</source>
        <translation>两端都监听端口 %1。</translation>
    </message>
    <message>
        <source>The high watermark must be between 1 and %L1 bytes.</source>
        <translation>高水位必须在 1 到 %L1 字节之间。</translation>
    </message>
    <message>
        <source>The low watermark must be below the high watermark.</source>
        <translation>低水位必须低于高水位。</translation>
    </message>
    <message>
        <source>The high watermark must hold at least one whole frame (%L1 bytes).</source>
        <translation>高水位必须至少容纳一个完整的帧（%L1 字节）。</translation>
    </message>
    <message>
        <source>The flood guard&apos;s time must be between 1 and %1 s.</source>
        <translation>防洪保护的时间必须在 1 到 %1 秒之间。</translation>
    </message>
    <message>
        <source>The flood guard&apos;s rate limit cannot be negative.</source>
        <translation>防洪保护的速率上限不能为负数。</translation>
    </message>
    <message>
        <source>The capture log&apos;s rotation size cannot be negative.</source>
        <translation>抓包日志的轮换大小不能为负数。</translation>
    </message>
    <message>
        <source>End %1: choose a pane.</source>
        <translation>端 %1：请选择一个面板。</translation>
    </message>
    <message>
        <source>End %1: &quot;%2&quot; is not an IP address to listen on.</source>
        <translation>端 %1：“%2”不是可以监听的 IP 地址。</translation>
    </message>
    <message>
        <source>End %1: the port must be between 0 (any free port) and 65535.</source>
        <translation>端 %1：端口必须在 0（任意空闲端口）到 65535 之间。</translation>
    </message>
    <message>
        <source>End %1: the allowlist entry &quot;%2&quot; is neither an address nor a subnet such as 192.168.1.0/24.</source>
        <translation>端 %1：白名单项“%2”既不是地址，也不是子网（例如 192.168.1.0/24）。</translation>
    </message>
    <message>
        <source>End %1: list at least one UDP target as address:port.</source>
        <translation>端 %1：请至少列出一个 UDP 目标，格式为 地址:端口。</translation>
    </message>
    <message>
        <source>End %1: at most %2 UDP targets.</source>
        <translation>端 %1：最多 %2 个 UDP 目标。</translation>
    </message>
    <message>
        <source>End %1: &quot;%2&quot; is not a UDP target; write address:port, such as 192.168.1.20:5000.</source>
        <translation>端 %1：“%2”不是 UDP 目标；请写作 地址:端口，例如 192.168.1.20:5000。</translation>
    </message>
    <message>
        <source>End %1 only sends UDP datagrams; choose a direction toward it.</source>
        <translation>端 %1 只发送 UDP 数据报；请选择指向它的方向。</translation>
    </message>
    <message>
        <source>%1: the maximum frame size must be between 1 and %L2 bytes.</source>
        <translation>%1：最大帧长必须在 1 到 %L2 字节之间。</translation>
    </message>
    <message>
        <source>%1: a frame for UDP targets must fit one datagram, at most %L2 bytes.</source>
        <translation>%1：发往 UDP 目标的帧必须放得进一个数据报，最多 %L2 字节。</translation>
    </message>
    <message>
        <source>%1: the hold time must be between 0 (no hold) and %L2 ms.</source>
        <translation>%1：等待时间必须在 0（不等待）到 %L2 毫秒之间。</translation>
    </message>
    <message>
        <source>%1: the idle gap must be between 1 and %L2 ms.</source>
        <translation>%1：空闲间隔必须在 1 到 %L2 毫秒之间。</translation>
    </message>
    <message>
        <source>%1: the delimiter must be 1 to %2 bytes.</source>
        <translation>%1：分隔符必须为 1 到 %2 个字节。</translation>
    </message>
    <message>
        <source>%1: the fixed length must be between 1 and the maximum frame size (%L2 bytes).</source>
        <translation>%1：固定长度必须在 1 到最大帧长（%L2 字节）之间。</translation>
    </message>
    <message>
        <source>Modbus TCP gateway</source>
        <translation>Modbus TCP 网关</translation>
    </message>
    <message>
        <source>A Modbus gateway takes its clients on a listener as end A and its line on a pane as end B.</source>
        <translation>Modbus 网关的客户端须在端 A 的监听上，串行线路须在端 B 的面板上。</translation>
    </message>
    <message>
        <source>The response timeout must be between 1 and %L1 ms.</source>
        <translation>响应超时必须在 1 到 %L1 毫秒之间。</translation>
    </message>
    <message>
        <source>The turnaround delay must be between 0 and %L1 ms.</source>
        <translation>周转延时必须在 0 到 %L1 毫秒之间。</translation>
    </message>
    <message>
        <source>A client&apos;s queue holds between 1 and %1 requests.</source>
        <translation>每个客户端的队列可容纳 1 到 %1 个请求。</translation>
    </message>
    <message>
        <source>The gateway&apos;s queue holds between 1 and %1 requests.</source>
        <translation>网关的队列可容纳 1 到 %1 个请求。</translation>
    </message>
    <message>
        <source>A client&apos;s queue cannot hold more than the gateway&apos;s queue.</source>
        <translation>客户端的队列不能大于网关的队列。</translation>
    </message>
    <message>
        <source>RFC 2217 port sharing</source>
        <translation>RFC 2217 串口共享</translation>
    </message>
    <message>
        <source>RFC 2217 port sharing takes its clients on a listener as end A and the shared port on a pane as end B.</source>
        <translation>RFC 2217 串口共享以监听器作为端点 A 接收客户端，以窗格作为端点 B 提供共享的端口。</translation>
    </message>
</context>
<context>
    <name>BridgeStore</name>
    <message>
        <source>The stored bridges were not loaded: Bridge/Count holds &quot;%1&quot;, which is not a count.</source>
        <translation>未加载保存的桥接：Bridge/Count 的值为“%1”，不是一个数量。</translation>
    </message>
    <message>
        <source>Only the first %1 of %2 stored bridges were loaded.</source>
        <translation>%2 个保存的桥接中只加载了前 %1 个。</translation>
    </message>
    <message>
        <source>its kind &quot;%1&quot; is not known to this version.</source>
        <translation>此版本不认识它的类型“%1”。</translation>
    </message>
    <message>
        <source>%1 holds &quot;%2&quot;, which it cannot take.</source>
        <translation>%1 的值为“%2”，无法接受。</translation>
    </message>
    <message>
        <source>Stored bridge %1 was skipped: %2</source>
        <translation>已跳过保存的桥接 %1：%2</translation>
    </message>
</context>
<context>
    <name>BridgesDialog</name>
    <message>
        <source>Bridges</source>
        <translation>桥接</translation>
    </message>
    <message>
        <source>Name</source>
        <translation>名称</translation>
    </message>
    <message>
        <source>State</source>
        <translation>状态</translation>
    </message>
    <message>
        <source>Add...</source>
        <translation>添加...</translation>
    </message>
    <message>
        <source>Edit...</source>
        <translation>编辑...</translation>
    </message>
    <message>
        <source>Enable</source>
        <translation>启用</translation>
    </message>
    <message>
        <source>Disable</source>
        <translation>禁用</translation>
    </message>
    <message>
        <source>Remove</source>
        <translation>删除</translation>
    </message>
    <message>
        <source>Start the bridge, or resume it after the flood guard suspended it</source>
        <translation>启动桥接，或在防洪保护挂起后恢复</translation>
    </message>
    <message>
        <source>Selected Bridge</source>
        <translation>所选桥接</translation>
    </message>
    <message>
        <source>Bytes per second over the last two minutes</source>
        <translation>最近两分钟每秒的字节数</translation>
    </message>
    <message>
        <source>No bridges yet. Add one to forward data between two ports.</source>
        <translation>还没有桥接。添加一个即可在两个端口之间转发数据。</translation>
    </message>
    <message>
        <source>Frames: %1
Bytes: %2
Dropped: %3 frames, %4 bytes
Not forwarded: %5 bytes
Queued: %6 bytes</source>
        <translation>帧：%1
字节：%2
丢弃：%3 帧，%4 字节
未转发：%5 字节
排队：%6 字节</translation>
    </message>
    <message>
        <source>Bridge %1</source>
        <translation>桥接 %1</translation>
    </message>
    <message>
        <source>Add Bridge</source>
        <translation>添加桥接</translation>
    </message>
    <message>
        <source>Remove Bridge</source>
        <translation>删除桥接</translation>
    </message>
    <message>
        <source>Remove the bridge &quot;%1&quot;? Its link stops at once.</source>
        <translation>删除桥接“%1”？其链路将立即停止。</translation>
    </message>
    <message>
        <source>Client or unit</source>
        <translation>客户端或单元</translation>
    </message>
    <message>
        <source>Requests</source>
        <translation>请求</translation>
    </message>
    <message>
        <source>Replies</source>
        <translation>应答</translation>
    </message>
    <message>
        <source>Timeouts</source>
        <translation>超时</translation>
    </message>
    <message>
        <source>Exceptions</source>
        <translation>异常</translation>
    </message>
    <message>
        <source>Client %1</source>
        <translation>客户端 %1</translation>
    </message>
    <message>
        <source>Unit 0 (broadcast)</source>
        <translation>单元 0（广播）</translation>
    </message>
    <message>
        <source>Unit %1</source>
        <translation>单元 %1</translation>
    </message>
    <message>
        <source>Replies discarded (damaged, from another unit, or unasked): %1</source>
        <translation>丢弃的应答（损坏、来自其他单元或无人请求）：%1</translation>
    </message>
</context>
<context>
    <name>ForwardPath</name>
    <message>
        <source>%1 is not ready</source>
        <translation>%1 尚未就绪</translation>
    </message>
    <message>
        <source>the target fell behind by more than %L1 bytes</source>
        <translation>目标落后超过 %L1 字节</translation>
    </message>
    <message>
        <source>%1 fell behind by more than %L2 bytes (overflow policy: disconnect)</source>
        <translation>%1 落后超过 %L2 字节（溢出策略：断开）</translation>
    </message>
    <message>
        <source>the queue reached its high watermark</source>
        <translation>队列达到高水位</translation>
    </message>
    <message>
        <source>%1 did not take them</source>
        <translation>%1 未接收</translation>
    </message>
    <message>
        <source>%1 went away</source>
        <translation>%1 已离开</translation>
    </message>
    <message>
        <source>the bridge stopped</source>
        <translation>桥接已停止</translation>
    </message>
</context>
<context>
    <name>ListenerBridgeEnd</name>
    <message>
        <source>Refused %1: %2</source>
        <translation>已拒绝 %1：%2</translation>
    </message>
    <message>
        <source>cannot listen on %1: %2</source>
        <translation>无法监听 %1：%2</translation>
    </message>
    <message>
        <source>Refused %1: the bridge already serves %2 clients</source>
        <translation>已拒绝 %1：桥接已在服务 %2 个客户端</translation>
    </message>
    <message>
        <source>not listening on %1</source>
        <translation>未在 %1 上监听</translation>
    </message>
    <message>
        <source>listener %1</source>
        <translation>监听 %1</translation>
    </message>
</context>
<context>
    <name>ModbusGatewayForm</name>
    <message>
        <source>Modbus RTU</source>
        <translation>Modbus RTU</translation>
    </message>
    <message>
        <source>Modbus ASCII</source>
        <translation>Modbus ASCII</translation>
    </message>
    <message>
        <source>Serial line speaks</source>
        <translation>串行线路协议</translation>
    </message>
    <message>
        <source> ms</source>
        <translation> 毫秒</translation>
    </message>
    <message>
        <source>A unit silent this long is answered with exception 0x0B and the next request goes</source>
        <translation>单元沉默达到此时长时，以异常 0x0B 应答，并发送下一个请求</translation>
    </message>
    <message>
        <source>Response timeout</source>
        <translation>响应超时</translation>
    </message>
    <message>
        <source>Extra quiet time after each reply and broadcast, beyond 3.5 characters</source>
        <translation>每次应答和广播之后，在 3.5 个字符之外额外的静默时间</translation>
    </message>
    <message>
        <source>Turnaround delay</source>
        <translation>周转延时</translation>
    </message>
    <message>
        <source>Send a request again once when its reply is damaged or from another unit</source>
        <translation>应答损坏或来自其他单元时，重发一次请求</translation>
    </message>
    <message>
        <source> requests</source>
        <translation> 个请求</translation>
    </message>
    <message>
        <source>Requests beyond this are answered with exception 0x06 (server device busy)</source>
        <translation>超出此数的请求以异常 0x06（从站设备忙）应答</translation>
    </message>
    <message>
        <source>Queue per client</source>
        <translation>每个客户端的队列</translation>
    </message>
    <message>
        <source>Queue in total</source>
        <translation>总队列</translation>
    </message>
</context>
<context>
    <name>ModbusGatewayPath</name>
    <message>
        <source>Closed %1: %2</source>
        <translation>已关闭 %1：%2</translation>
    </message>
    <message>
        <source>it sent requests faster than it read the replies.</source>
        <translation>它发送请求的速度快于读取应答的速度。</translation>
    </message>
    <message>
        <source>the gateway stopped</source>
        <translation>网关已停止</translation>
    </message>
</context>
<context>
    <name>ModbusTcpReader</name>
    <message>
        <source>its MBAP header names protocol %1, not Modbus (0).</source>
        <translation>其 MBAP 报头的协议号为 %1，而不是 Modbus (0)。</translation>
    </message>
    <message>
        <source>its MBAP header gives a length of %1; Modbus allows 2 to %2.</source>
        <translation>其 MBAP 报头给出的长度为 %1；Modbus 允许 2 到 %2。</translation>
    </message>
</context>
<context>
    <name>PaneBridgeEnd</name>
    <message>
        <source>no pane has %1</source>
        <translation>没有面板使用 %1</translation>
    </message>
    <message>
        <source>a file transfer runs on %1</source>
        <translation>%1 上正在进行文件传输</translation>
    </message>
    <message>
        <source>%1 is closed</source>
        <translation>%1 已关闭</translation>
    </message>
</context>
<context>
    <name>RateSparkline</name>
    <message>
        <source>%1 B/s</source>
        <translation>%1 B/s</translation>
    </message>
    <message>
        <source>%1 KB/s</source>
        <translation>%1 KB/s</translation>
    </message>
    <message>
        <source>%1 MB/s</source>
        <translation>%1 MB/s</translation>
    </message>
</context>
<context>
    <name>Rfc2217SharePath</name>
    <message>
        <source>the shared port did not take it</source>
        <translation>共享的端口未接收该数据</translation>
    </message>
    <message>
        <source>%1 uses the shared port as a raw TCP stream.</source>
        <translation>%1 以原始 TCP 数据流使用共享的端口。</translation>
    </message>
    <message>
        <source>%1 controls the shared port over RFC 2217.</source>
        <translation>%1 通过 RFC 2217 控制共享的端口。</translation>
    </message>
    <message>
        <source>the client left</source>
        <translation>客户端已离开</translation>
    </message>
    <message>
        <source>the bridge stopped</source>
        <translation>桥接已停止</translation>
    </message>
</context>
<context>
    <name>UdpBridgeEnd</name>
    <message>
        <source>cannot open a UDP socket: %1</source>
        <translation>无法打开 UDP 套接字：%1</translation>
    </message>
    <message>
        <source>no UDP socket: %1</source>
        <translation>没有 UDP 套接字：%1</translation>
    </message>
    <message>
        <source>UDP %1</source>
        <translation>UDP %1</translation>
    </message>
</context>
</TS>
