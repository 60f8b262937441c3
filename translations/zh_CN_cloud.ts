<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="zh_CN" sourcelanguage="en">
<context>
    <name>AccountDialog</name>
    <message>
        <source>Account</source>
        <translation>账户</translation>
    </message>
    <message>
        <source>Server</source>
        <translation>服务器</translation>
    </message>
    <message>
        <source>Keep me signed in</source>
        <translation>保持登录</translation>
    </message>
    <message>
        <source>Sign In</source>
        <translation>登录</translation>
    </message>
    <message>
        <source>Email</source>
        <translation>电子邮箱</translation>
    </message>
    <message>
        <source>Password</source>
        <translation>密码</translation>
    </message>
    <message>
        <source>Send Code</source>
        <translation>发送验证码</translation>
    </message>
    <message>
        <source>Register</source>
        <translation>注册</translation>
    </message>
    <message>
        <source>Username</source>
        <translation>用户名</translation>
    </message>
    <message>
        <source>Confirm</source>
        <translation>确认密码</translation>
    </message>
    <message>
        <source>Code</source>
        <translation>验证码</translation>
    </message>
    <message>
        <source>Please enter an email address.</source>
        <translation>请输入电子邮箱地址。</translation>
    </message>
    <message>
        <source>Sending the code…</source>
        <translation>正在发送验证码…</translation>
    </message>
    <message>
        <source>Please enter your email and password.</source>
        <translation>请输入电子邮箱和密码。</translation>
    </message>
    <message>
        <source>Signing in…</source>
        <translation>正在登录…</translation>
    </message>
    <message>
        <source>Passwords do not match.</source>
        <translation>两次输入的密码不一致。</translation>
    </message>
    <message>
        <source>Creating the account…</source>
        <translation>正在创建账户…</translation>
    </message>
    <message>
        <source>Request completed.</source>
        <translation>请求已完成。</translation>
    </message>
    <message>
        <source>Request failed.</source>
        <translation>请求失败。</translation>
    </message>
    <message>
        <source>No reply from the server. Please try again.</source>
        <translation>服务器没有回复。请重试。</translation>
    </message>
</context>
<context>
    <name>AccountReplyHandler</name>
    <message>
        <source>My Account</source>
        <translation>我的账户</translation>
    </message>
    <message>
        <source>Sign in has expired.</source>
        <translation>登录已过期。</translation>
    </message>
    <message>
        <source>Device binding failed.</source>
        <translation>设备绑定失败。</translation>
    </message>
    <message>
        <source>Request failed.</source>
        <translation>请求失败。</translation>
    </message>
    <message>
        <source>You signed out.</source>
        <translation>您已退出登录。</translation>
    </message>
</context>
<context>
    <name>AccountSession</name>
    <message>
        <source>Not signed in</source>
        <translation>未登录</translation>
    </message>
</context>
<context>
    <name>CloudConsoleService</name>
    <message>
        <source>Live Console stopped: monthly traffic quota used up. Please top up to continue.</source>
        <translation>实时控制台已停止：本月流量配额已用完。请充值后继续使用。</translation>
    </message>
</context>
<context>
    <name>GuestShare</name>
    <message>
        <source>View only</source>
        <translation>仅查看</translation>
    </message>
    <message>
        <source>View and send</source>
        <translation>查看和发送</translation>
    </message>
    <message>
        <source>View, send and port control</source>
        <translation>查看、发送和端口控制</translation>
    </message>
    <message>
        <source>Not allowed</source>
        <translation>不允许</translation>
    </message>
    <message>
        <source>browser: view only</source>
        <translation>浏览器：仅查看</translation>
    </message>
    <message>
        <source>browser: view and send</source>
        <translation>浏览器：查看和发送</translation>
    </message>
    <message>
        <source>browser: view, send and port control</source>
        <translation>浏览器：查看、发送和端口控制</translation>
    </message>
    <message>
        <source>1 hour</source>
        <translation>1 小时</translation>
    </message>
    <message>
        <source>4 hours</source>
        <translation>4 小时</translation>
    </message>
    <message>
        <source>12 hours</source>
        <translation>12 小时</translation>
    </message>
    <message>
        <source>24 hours</source>
        <translation>24 小时</translation>
    </message>
    <message>
        <source>the computer restarted</source>
        <translation>电脑已重新启动</translation>
    </message>
    <message>
        <source>too many wrong passcodes</source>
        <translation>错误访问码次数过多</translation>
    </message>
    <message>
        <source>it expired</source>
        <translation>已过期</translation>
    </message>
    <message>
        <source>stopped by the owner</source>
        <translation>被所有者停止</translation>
    </message>
    <message>
        <source>The share no longer matched this run.</source>
        <translation>该共享已与本次运行不符。</translation>
    </message>
    <message>
        <source>Too many wrong passcodes; the share was revoked.</source>
        <translation>错误访问码次数过多，共享已被撤销。</translation>
    </message>
    <message>
        <source>The share ended.</source>
        <translation>共享已结束。</translation>
    </message>
    <message>
        <source>The share expired.</source>
        <translation>共享已过期。</translation>
    </message>
    <message>
        <source>You stopped sharing.</source>
        <translation>您已停止共享。</translation>
    </message>
    <message>
        <source>The shared port was closed.</source>
        <translation>共享的端口已关闭。</translation>
    </message>
    <message>
        <source>Live Console was switched off.</source>
        <translation>实时控制台已关闭。</translation>
    </message>
    <message>
        <source>Live Relay was switched off on this computer.</source>
        <translation>这台电脑上的实时中继已关闭。</translation>
    </message>
</context>
<context>
    <name>GuestShareDialog</name>
    <message>
        <source>Share Port with a Guest</source>
        <translation>与访客共享端口</translation>
    </message>
    <message>
        <source>Other shares on this computer</source>
        <translation>这台电脑上的其他共享</translation>
    </message>
    <message>
        <source>Loading…</source>
        <translation>正在加载…</translation>
    </message>
    <message>
        <source>No open serial port</source>
        <translation>没有打开的串口</translation>
    </message>
    <message>
        <source>Optional, 4–16 characters</source>
        <translation>可选，4–16 个字符</translation>
    </message>
    <message>
        <source>What the guest sees</source>
        <translation>访客看到的名称</translation>
    </message>
    <message>
        <source>Also as a real serial port in Tessaline (Live Relay)</source>
        <translation>同时作为 Tessaline 中的真实串口（实时中继）</translation>
    </message>
    <message>
        <source>Port</source>
        <translation>端口</translation>
    </message>
    <message>
        <source>Valid for</source>
        <translation>有效期</translation>
    </message>
    <message>
        <source>Passcode</source>
        <translation>访问码</translation>
    </message>
    <message>
        <source>Label</source>
        <translation>标签</translation>
    </message>
    <message>
        <source>In a browser</source>
        <translation>在浏览器中</translation>
    </message>
    <message>
        <source>A browser guest sees decoded text that passes through the cloud; a relay moves raw bytes the cloud never reads.</source>
        <translation>浏览器访客看到的是经过云端的解码文本；中继传送的是云端从不读取的原始字节。</translation>
    </message>
    <message>
        <source>The guest needs no account and pays nothing. Traffic counts toward your cloud allowance: about 81 MB per hour at 115200 baud full rate.</source>
        <translation>访客无需账户，也无需付费。流量计入您的云端额度：115200 波特率满速时每小时约 81 MB。</translation>
    </message>
    <message>
        <source>Create Invite</source>
        <translation>创建邀请</translation>
    </message>
    <message>
        <source>Copy Code</source>
        <translation>复制邀请码</translation>
    </message>
    <message>
        <source>Copy Link</source>
        <translation>复制链接</translation>
    </message>
    <message>
        <source>Disconnect Guest</source>
        <translation>断开访客</translation>
    </message>
    <message>
        <source>Stop Sharing</source>
        <translation>停止共享</translation>
    </message>
    <message>
        <source>Share Again</source>
        <translation>再次共享</translation>
    </message>
    <message>
        <source>Code copied.</source>
        <translation>邀请码已复制。</translation>
    </message>
    <message>
        <source>Link copied.</source>
        <translation>链接已复制。</translation>
    </message>
    <message>
        <source>Switch on Cloud &gt; Live Relay to offer this.</source>
        <translation>请先开启 云 &gt; 实时中继 才能提供此项。</translation>
    </message>
    <message>
        <source>Creating the invite…</source>
        <translation>正在创建邀请…</translation>
    </message>
    <message>
        <source>Could not create the invite: %1</source>
        <translation>无法创建邀请：%1</translation>
    </message>
    <message>
        <source>Disconnected by the owner.</source>
        <translation>已被所有者断开。</translation>
    </message>
    <message>
        <source>Sharing ended: %1</source>
        <translation>共享已结束：%1</translation>
    </message>
    <message>
        <source>Passcode: %1</source>
        <translation>访问码：%1</translation>
    </message>
    <message>
        <source>Tessaline: real serial port</source>
        <translation>Tessaline：真实串口</translation>
    </message>
    <message>
        <source>Nothing is shared right now.</source>
        <translation>目前没有任何共享。</translation>
    </message>
    <message>
        <source>%1 h %2 min</source>
        <translation>%1 小时 %2 分钟</translation>
    </message>
    <message>
        <source>%1 min</source>
        <translation>%1 分钟</translation>
    </message>
    <message>
        <source>Expired — the share admits no new guests.</source>
        <translation>已过期 — 该共享不再接纳新访客。</translation>
    </message>
    <message>
        <source>Expires at %1 (in %2)</source>
        <translation>%1 到期（还剩 %2）</translation>
    </message>
    <message>
        <source>%1 connected since %2</source>
        <translation>%1 自 %2 起已连接</translation>
    </message>
    <message>
        <source>Watching in a browser: %1</source>
        <translation>在浏览器中查看：%1</translation>
    </message>
    <message>
        <source>Waiting for a guest…</source>
        <translation>正在等待访客…</translation>
    </message>
    <message>
        <source>%1: the share ended (%2).</source>
        <translation>%1：共享已结束（%2）。</translation>
    </message>
    <message>
        <source>%1 · expires %2</source>
        <translation>%1 · %2 到期</translation>
    </message>
</context>
<context>
    <name>GuestShareKeeper</name>
    <message>
        <source>Open a serial port connection first: only an open serial port can be shared.</source>
        <translation>请先打开一个串口连接：只有已打开的串口才能共享。</translation>
    </message>
    <message>
        <source>Switch Live Console on first: the share travels over its channel.</source>
        <translation>请先开启实时控制台：共享经由它的通道传输。</translation>
    </message>
    <message>
        <source>A share is still being created; wait for it.</source>
        <translation>仍有一个共享正在创建，请稍候。</translation>
    </message>
    <message>
        <source>Switch on Cloud &gt; Live Relay first: a guest in Tessaline comes in through it.</source>
        <translation>请先开启 云 &gt; 实时中继：Tessaline 中的访客经由它接入。</translation>
    </message>
    <message>
        <source>This computer already holds %1 shares; stop one first.</source>
        <translation>这台电脑已有 %1 个共享，请先停止其中一个。</translation>
    </message>
    <message>
        <source>Sign in first: a share belongs to your cloud account.</source>
        <translation>请先登录：共享属于您的云端账户。</translation>
    </message>
    <message>
        <source>The server did not return the share.</source>
        <translation>服务器没有返回该共享。</translation>
    </message>
</context>
<context>
    <name>GuestShareTable</name>
    <message>
        <source>A share lasts 1, 4, 12 or 24 hours.</source>
        <translation>共享的时长为 1、4、12 或 24 小时。</translation>
    </message>
    <message>
        <source>Allow at least one way in: the browser, Tessaline, or both.</source>
        <translation>至少允许一种接入方式：浏览器、Tessaline 或两者。</translation>
    </message>
    <message>
        <source>A passcode is 4–16 characters.</source>
        <translation>访问码为 4–16 个字符。</translation>
    </message>
</context>
<context>
    <name>ManageGuestSharesDialog</name>
    <message>
        <source>Manage Guest Shares</source>
        <translation>管理访客共享</translation>
    </message>
    <message>
        <source>Every invite live on any of your computers, and who is on each. Stopping one ends its session too. Invites are created on the computer that owns the port: Cloud &gt; Share Port with a Guest…</source>
        <translation>您所有电脑上仍有效的邀请，以及每个邀请上的访客。停止一个邀请也会结束其会话。邀请需在拥有该端口的电脑上创建：云 &gt; 与访客共享端口…</translation>
    </message>
    <message>
        <source>Device / Port</source>
        <translation>设备 / 端口</translation>
    </message>
    <message>
        <source>Code</source>
        <translation>邀请码</translation>
    </message>
    <message>
        <source>Guest</source>
        <translation>访客</translation>
    </message>
    <message>
        <source>Expires</source>
        <translation>到期</translation>
    </message>
    <message>
        <source>Stop Sharing</source>
        <translation>停止共享</translation>
    </message>
    <message>
        <source>Copy Code</source>
        <translation>复制邀请码</translation>
    </message>
    <message>
        <source>Refresh</source>
        <translation>刷新</translation>
    </message>
    <message>
        <source>Could not load the share list: %1</source>
        <translation>无法加载共享列表：%1</translation>
    </message>
    <message>
        <source>Sign in to see your shares.</source>
        <translation>登录后即可查看您的共享。</translation>
    </message>
    <message>
        <source>Loading…</source>
        <translation>正在加载…</translation>
    </message>
    <message>
        <source>%1 (this computer)</source>
        <translation>%1（这台电脑）</translation>
    </message>
    <message>
        <source>Nothing is shared right now.</source>
        <translation>目前没有任何共享。</translation>
    </message>
    <message>
        <source>Revoked after wrong passcodes in the last 24 hours: %1</source>
        <translation>过去 24 小时内因错误访问码被撤销：%1</translation>
    </message>
    <message>
        <source>Stopping %1…</source>
        <translation>正在停止 %1…</translation>
    </message>
    <message>
        <source>Code copied.</source>
        <translation>邀请码已复制。</translation>
    </message>
    <message>
        <source>%1 (browser)</source>
        <translation>%1（浏览器）</translation>
    </message>
    <message>
        <source>waiting</source>
        <translation>等待中</translation>
    </message>
</context>
<context>
    <name>MyAccountDialog</name>
    <message>
        <source>Username</source>
        <translation>用户名</translation>
    </message>
    <message>
        <source>Email</source>
        <translation>电子邮箱</translation>
    </message>
    <message>
        <source>Server</source>
        <translation>服务器</translation>
    </message>
    <message>
        <source>Cloud traffic</source>
        <translation>云流量</translation>
    </message>
    <message>
        <source>Computer</source>
        <translation>计算机</translation>
    </message>
    <message>
        <source>Version</source>
        <translation>版本</translation>
    </message>
    <message>
        <source>Last seen</source>
        <translation>最近在线</translation>
    </message>
    <message>
        <source>Remove Computer</source>
        <translation>移除计算机</translation>
    </message>
    <message>
        <source>Refresh</source>
        <translation>刷新</translation>
    </message>
    <message>
        <source>Asking the server…</source>
        <translation>正在询问服务器…</translation>
    </message>
    <message>
        <source>%1 this month (no limit)</source>
        <translation>本月 %1（不限量）</translation>
    </message>
    <message>
        <source>%1 of %2 this month</source>
        <translation>本月已用 %1，共 %2</translation>
    </message>
    <message>
        <source>%1 (this computer)</source>
        <translation>%1（本机）</translation>
    </message>
    <message>
        <source>Remove this computer from the account? It stays signed in until the sign-in ends.</source>
        <translation>要从账户中移除这台计算机吗？在本次登录结束前它仍保持登录。</translation>
    </message>
    <message>
        <source>Remove &quot;%1&quot; from the account?</source>
        <translation>要从账户中移除“%1”吗？</translation>
    </message>
</context>
<context>
    <name>NetworkServices</name>
    <message>
        <source>The server does not offer this feature yet. The service may be under maintenance or being upgraded; please try again later or check for a newer version.</source>
        <translation>服务器尚未提供此功能。服务可能正在维护或升级，请稍后重试或检查是否有新版本。</translation>
    </message>
    <message>
        <source>The server declined the request. Please sign in again and retry.</source>
        <translation>服务器拒绝了请求。请重新登录后重试。</translation>
    </message>
    <message>
        <source>The server encountered an internal error. Please try again later.</source>
        <translation>服务器发生内部错误。请稍后重试。</translation>
    </message>
    <message>
        <source>The server rejected the request (HTTP %1). Please try again later.</source>
        <translation>服务器拒绝了请求（HTTP %1）。请稍后重试。</translation>
    </message>
    <message>
        <source>The server did not respond in time. Please check your network connection and try again.</source>
        <translation>服务器未及时响应。请检查网络连接后重试。</translation>
    </message>
    <message>
        <source>The server returned an unexpected response. Please try again later.</source>
        <translation>服务器返回了意外的响应。请稍后重试。</translation>
    </message>
    <message>
        <source>A secure connection to the server could not be established. Please check your network environment.</source>
        <translation>无法与服务器建立安全连接。请检查您的网络环境。</translation>
    </message>
    <message>
        <source>The proxy server could not be reached. Please check your proxy settings.</source>
        <translation>无法连接到代理服务器。请检查代理设置。</translation>
    </message>
    <message>
        <source>Could not connect to the server. Please check your network connection and try again.</source>
        <translation>无法连接到服务器。请检查网络连接后重试。</translation>
    </message>
</context>
<context>
    <name>RelayConnector</name>
    <message>
        <source>That does not look like an invite code.</source>
        <translation>这看起来不是邀请码。</translation>
    </message>
    <message>
        <source>The relay could not be opened.</source>
        <translation>无法打开中继。</translation>
    </message>
    <message>
        <source>That computer is no longer bound to this account.</source>
        <translation>该计算机已不再绑定到此账户。</translation>
    </message>
    <message>
        <source>%1 is offline.</source>
        <translation>%1 当前离线。</translation>
    </message>
    <message>
        <source>%1 no longer shares a port called &quot;%2&quot;. Choose it again.</source>
        <translation>%1 已不再共享名为“%2”的端口。请重新选择。</translation>
    </message>
    <message>
        <source>The server did not return a relay ticket.</source>
        <translation>服务器没有返回中继票据。</translation>
    </message>
    <message>
        <source>The port this project used (%1) is not available right now.</source>
        <translation>此项目使用的端口（%1）目前不可用。</translation>
    </message>
</context>
<context>
    <name>RelayController</name>
    <message>
        <source>the shared port was closed</source>
        <translation>共享的端口已关闭</translation>
    </message>
    <message>
        <source>another computer</source>
        <translation>另一台计算机</translation>
    </message>
    <message>
        <source>Live Relay: %1 now uses this port.</source>
        <translation>实时中继：%1 正在使用此端口。</translation>
    </message>
    <message>
        <source>the shared port did not take the data</source>
        <translation>共享的端口未能接收数据</translation>
    </message>
    <message>
        <source>The relay could not keep up with the port: %L1 bytes from the port were dropped.</source>
        <translation>中继跟不上端口的速度：端口发来的 %L1 字节已被丢弃。</translation>
    </message>
    <message>
        <source>Live Relay ended: %1</source>
        <translation>实时中继已结束：%1</translation>
    </message>
</context>
<context>
    <name>RelaySocket</name>
    <message>
        <source>The remote computer does not allow Live Relay on that port.</source>
        <translation>远程计算机不允许在该端口上使用实时中继。</translation>
    </message>
    <message>
        <source>The remote port already has a relay session.</source>
        <translation>远程端口已有一个中继会话。</translation>
    </message>
    <message>
        <source>The remote computer&apos;s ports changed. Choose the port again.</source>
        <translation>远程计算机的端口已变化。请重新选择端口。</translation>
    </message>
    <message>
        <source>The remote computer declined the relay (%1).</source>
        <translation>远程计算机拒绝了中继（%1）。</translation>
    </message>
    <message>
        <source>The remote computer declined the relay.</source>
        <translation>远程计算机拒绝了中继。</translation>
    </message>
    <message>
        <source>The relay is rate limited to %1 bytes per second.</source>
        <translation>中继速率被限制为每秒 %1 字节。</translation>
    </message>
    <message>
        <source>The remote end disconnected.</source>
        <translation>远端已断开连接。</translation>
    </message>
    <message>
        <source>The monthly cloud traffic quota is exhausted.</source>
        <translation>本月云流量配额已用完。</translation>
    </message>
    <message>
        <source>The server closed the relay.</source>
        <translation>服务器关闭了中继。</translation>
    </message>
    <message>
        <source>Missing relay address or ticket.</source>
        <translation>缺少中继地址或票据。</translation>
    </message>
    <message>
        <source>%1 is not a server address</source>
        <translation>%1 不是服务器地址</translation>
    </message>
    <message>
        <source>The relay connection was closed (code %1).</source>
        <translation>中继连接已关闭（代码 %1）。</translation>
    </message>
    <message>
        <source>The remote computer did not join the relay. Check that it is online and that Live Relay is allowed on that port.</source>
        <translation>远程计算机没有加入中继。请检查它是否在线，以及该端口是否允许实时中继。</translation>
    </message>
    <message>
        <source>The relay gateway could not be reached.</source>
        <translation>无法连接到中继网关。</translation>
    </message>
    <message>
        <source>The relay gateway could not be reached: %1</source>
        <translation>无法连接到中继网关：%1</translation>
    </message>
</context>
<context>
    <name>RelayTargetDialog</name>
    <message>
        <source>Select a Remote Serial Port</source>
        <translation>选择远程串口</translation>
    </message>
    <message>
        <source>Join with an invite code</source>
        <translation>使用邀请码加入</translation>
    </message>
    <message>
        <source>XXXX-XXXX-XXXX or the invite link</source>
        <translation>XXXX-XXXX-XXXX 或邀请链接</translation>
    </message>
    <message>
        <source>Invite code</source>
        <translation>邀请码</translation>
    </message>
    <message>
        <source>The name the host will see</source>
        <translation>主机端看到的名字</translation>
    </message>
    <message>
        <source>Your name</source>
        <translation>您的名字</translation>
    </message>
    <message>
        <source>Passcode</source>
        <translation>访问密码</translation>
    </message>
    <message>
        <source>Or choose one of your own devices</source>
        <translation>或者选择您自己的一台设备</translation>
    </message>
    <message>
        <source>Device / Port</source>
        <translation>设备 / 端口</translation>
    </message>
    <message>
        <source>Status</source>
        <translation>状态</translation>
    </message>
    <message>
        <source>Refresh</source>
        <translation>刷新</translation>
    </message>
    <message>
        <source>Waiting for the device to report its ports…</source>
        <translation>正在等待设备报告其端口…</translation>
    </message>
    <message>
        <source>Looking for your devices…</source>
        <translation>正在查找您的设备…</translation>
    </message>
    <message>
        <source>Sign in to see your own devices.</source>
        <translation>登录后可查看您自己的设备。</translation>
    </message>
    <message>
        <source>Asking for the port list…</source>
        <translation>正在请求端口列表…</translation>
    </message>
    <message>
        <source>The relay could not be opened.</source>
        <translation>无法打开中继。</translation>
    </message>
    <message>
        <source>No devices are bound to this account yet.</source>
        <translation>此账户尚未绑定任何设备。</translation>
    </message>
    <message>
        <source>Online</source>
        <translation>在线</translation>
    </message>
    <message>
        <source>Offline</source>
        <translation>离线</translation>
    </message>
    <message>
        <source>No ports reported yet</source>
        <translation>尚未报告端口</translation>
    </message>
    <message>
        <source>Relay not allowed there</source>
        <translation>该端口不允许中继</translation>
    </message>
    <message>
        <source>Open</source>
        <translation>已打开</translation>
    </message>
    <message>
        <source>Closed</source>
        <translation>已关闭</translation>
    </message>
    <message>
        <source>The device has not reported its ports. Press Refresh to ask again.</source>
        <translation>设备尚未报告其端口。请按“刷新”再次请求。</translation>
    </message>
    <message>
        <source>That does not look like an invite code.</source>
        <translation>这看起来不是邀请码。</translation>
    </message>
    <message>
        <source>Checking the code…</source>
        <translation>正在检查邀请码…</translation>
    </message>
    <message>
        <source>Too many tries. Wait a minute.</source>
        <translation>尝试次数过多。请稍等一分钟。</translation>
    </message>
    <message>
        <source>That code is not valid or has expired.</source>
        <translation>该邀请码无效或已过期。</translation>
    </message>
    <message>
        <source>%1 — the host is offline right now.</source>
        <translation>%1 — 主机当前离线。</translation>
    </message>
    <message>
        <source>%1 — someone is already connected to that port.</source>
        <translation>%1 — 已有人连接到该端口。</translation>
    </message>
    <message>
        <source>%1 — ready.</source>
        <translation>%1 — 就绪。</translation>
    </message>
</context>
<context>
    <name>SessionSyncCoordinator</name>
    <message>
        <source>Settings synced</source>
        <translation>设置已同步</translation>
    </message>
    <message>
        <source>Cloud settings applied</source>
        <translation>已应用云端设置</translation>
    </message>
    <message>
        <source>Cloud settings changed; use Sync Now to resolve.</source>
        <translation>云端设置已更改；请使用“立即同步”解决。</translation>
    </message>
    <message>
        <source>Sync Settings</source>
        <translation>同步设置</translation>
    </message>
    <message>
        <source>Cloud settings are different from this computer.</source>
        <translation>云端设置与本机不同。</translation>
    </message>
    <message>
        <source>Choose which settings to keep for this manual sync.</source>
        <translation>请选择本次手动同步要保留的设置。</translation>
    </message>
    <message>
        <source>Not synced yet</source>
        <translation>尚未同步</translation>
    </message>
    <message>
        <source>Last synced: %1</source>
        <translation>上次同步：%1</translation>
    </message>
    <message>
        <source>Sign in to sync your settings.</source>
        <translation>请登录后再同步设置。</translation>
    </message>
    <message>
        <source>Request failed.</source>
        <translation>请求失败。</translation>
    </message>
</context>
<context>
    <name>SyncSettingsDialog</name>
    <message>
        <source>Sync Settings</source>
        <translation>同步设置</translation>
    </message>
    <message>
        <source>Sync send history</source>
        <translation>同步发送历史</translation>
    </message>
    <message>
        <source>Sync automatically</source>
        <translation>自动同步</translation>
    </message>
    <message>
        <source> min</source>
        <translation> 分钟</translation>
    </message>
    <message>
        <source>Auto sync interval</source>
        <translation>自动同步间隔</translation>
    </message>
</context>
<context>
    <name>WebSocketCodec</name>
    <message>
        <source>the WebSocket handshake is too long</source>
        <translation>WebSocket 握手过长</translation>
    </message>
    <message>
        <source>the server did not answer with HTTP</source>
        <translation>服务器没有以 HTTP 应答</translation>
    </message>
    <message>
        <source>the server answered %1 instead of opening a WebSocket</source>
        <translation>服务器应答了 %1，而没有打开 WebSocket</translation>
    </message>
    <message>
        <source>the server&apos;s WebSocket handshake is not valid</source>
        <translation>服务器的 WebSocket 握手无效</translation>
    </message>
    <message>
        <source>the request is not a WebSocket handshake</source>
        <translation>该请求不是 WebSocket 握手</translation>
    </message>
    <message>
        <source>a malformed WebSocket frame arrived</source>
        <translation>收到了格式错误的 WebSocket 帧</translation>
    </message>
    <message>
        <source>a message larger than %L1 bytes arrived</source>
        <translation>收到了大于 %L1 字节的消息</translation>
    </message>
    <message>
        <source>a text message that is not UTF-8 arrived</source>
        <translation>收到了不是 UTF-8 的文本消息</translation>
    </message>
</context>
</TS>
